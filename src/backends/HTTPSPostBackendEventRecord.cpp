// From a message to the record that is posted.

#include "backends/HTTPSPostBackend.h"
#include "util/Conversions.h"

namespace zun {

namespace {

constexpr size_t kContextKeys = 17;

// Client types whose servers know a session by its number.
bool identifiesSessionByNumber(int32_t clientType, bool isInternal) {
  constexpr int32_t kAlways = 7;
  constexpr int32_t kInternalOnly[] = {11, 13};
  return clientType == kAlways ||
         (isInternal && (clientType == kInternalOnly[0] || clientType == kInternalOnly[1]));
}

}  // namespace

// The event number is the counter's: it is the one that the message came under.
Dictionary HTTPSPostBackend::newEventDictfromPayload(const Dictionary& payload, const TimeValue& timestamp,
                                                     uint16_t method, uint16_t respCode,
                                                     uint16_t /*eventID*/) const {
  const size_t userInfoKeys = userInfoDict_ ? userInfoDict_->size() : 0;
  Dictionary record = Dictionary::withCapacity(payload.size() + kContextKeys + userInfoKeys);
  record.addEntries(payload);

  // The session's start goes out to the minute only, and event times move along with
  // it: differences are exact, the absolute clock is coarse.
  const int64_t startTS = wholeMinutes(Value(startTimeStamp_).intValue());
  record.set(Value::literal("_startTS"), startTS);
  record.set(Value::literal("_sender"), Value::literal(senderCode()));
  record.set(Value::literal("_clientVersion"), clientVersion_);
  if (const Value combined = combinedSessionIDString(); !combined.isNone()) {
    record.set(Value::literal("_sessionID"), combined);
  }
  if (identifiesSessionByNumber(compType_, isInternal_)) {
    record.set(Value::literal("_sessionID"), sessionID_);
  }
  record.set(Value::literal("_eventNumber"), eventID_);
  record.set(Value::literal("_method"), method);
  record.set(Value::literal("_status"), respCode);
  const double clientTS =
      finiteOrMinusOne(secondsOf(timestamp) - startTimeStamp_ + static_cast<double>(startTS));
  record.set(Value::literal("_clientTS"), clientTS);
  record.set(Value::literal("eventTime"), clientTS);
  record.set(Value::literal("_productFamily"), productFamily_);
  record.set(Value::literal("_productModel"), hardwareType_);
  if (!productVersion_.isNone()) record.set(Value::literal("_osVersion"), productVersion_);
  if (!buildVersion_.isNone()) record.set(Value::literal("_build"), buildVersion_);
  record.set(Value::literal("_internal"), services_.identity.isInternalBuild() ? 1 : 0);
  record.set(Value::literal("_reportVers"), selfVersionText_);
  record.set(Value::literal("_timezoneOffset"), services_.platform.locale.timeZoneOffsetSeconds());
  return record;
}

void HTTPSPostBackend::prepareEventForMessage(Dictionary& record, const Dictionary* frameworkData) const {
  if (userInfoDict_) record.addEntries(*userInfoDict_);
  if (frameworkData != nullptr) record.addEntries(*frameworkData);
  filterEvent(record);
}

}  // namespace zun
