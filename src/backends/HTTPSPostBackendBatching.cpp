// What is sent at once, what waits, and how a batch leaves.

#include <algorithm>
#include <utility>

#include "backends/HTTPSPostBackend.h"
#include "backends/MessageBlob.h"
#include "util/Conversions.h"
#include "util/MemoryUse.h"

namespace zun {

namespace {

constexpr uint16_t kSessionMethod = 0;
constexpr uint16_t kSessionStop = 1;

bool isRealtime(int32_t flag) {
  return flag == 1 || flag == 3;
}

bool promotes(int32_t flag) {
  return flag == 2 || flag == 3;
}

Value orMinusOne(Value value) {
  return value.isNone() ? Value(-1) : value;
}

}  // namespace

std::optional<std::string> HTTPSPostBackend::sendMessage(const std::optional<Dictionary>& message,
                                                         const TimeValue& timestamp, uint16_t method,
                                                         uint16_t respCode, uint16_t eventID, int32_t flag) {
  const int32_t stateBefore = state();
  if (stateBefore == ZunBackendStateDisabled) return std::nullopt;
  if (!message) log().error("HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil");
  Dictionary payload = eventPayload(message);
  if (method == kSessionMethod && respCode == kSessionStop) addSessionStopKeys(payload);
  Dictionary record = newEventDictfromPayload(payload, timestamp, method, respCode, eventID);
  prepareEventForMessage(record,
                         message ? (*message)[kZunReportingMessageBlobSharedData].dictionary() : nullptr);
  // The promotion is for the messages to come: this one keeps the state that it found.
  if (promotes(flag) && stateBefore == ZunBackendStateSampledOut) setState(ZunBackendStateEnabled);
  log().debug("HTTPSPostBackend(sendMessage): realtime is {:d}", isRealtime(flag));

  const bool mayPost =
      stateBefore != ZunBackendStateAwaitingUserInfo && stateBefore != ZunBackendStateSampledOut;
  const bool isDue = isRealtime(flag) || !batchEvents_;
  if (mayPost && isDue && (!requireUserInfo_ || userInfoDict_)) {
    return sendNow(std::move(record), stateBefore, method, respCode, flag);
  }
  log().debug("HTTPSPostBackend(sendMessage): Batching {}, {:d}, {:d}", stateBefore, batchEvents_,
              requireUserInfo_);
  return batchEvent(std::move(record));
}

void HTTPSPostBackend::addSessionStopKeys(Dictionary& payload) const {
  log().debug(
      "HTTPSPostBackend(sendMessage): "
      "Adding dnu type and sampling threshold to SESSION_TYPE_STOP message dictionary");
  payload.set(Value::literal("Opt"), dnuType_);
  payload.set(Value::literal("SamplingThreshold"), orMinusOne(samplingThreshold()));
  payload.set(Value::literal("OverrideSampling"), orMinusOne(overrideSampling_));
  payload.set(Value::literal("Batch"), batchEvents_ ? 1 : 0);
}

std::optional<std::string> HTTPSPostBackend::sendNow(Dictionary record, int32_t stateBefore, uint16_t method,
                                                     uint16_t respCode, int32_t flag) {
  std::optional<std::string> flushed;
  if (stateBefore == ZunBackendStateEnabled && isRealtime(flag) && hasBatch()) {
    log().debug(
        "HTTPSPostBackend(sendMessage): Got a realtime event and some events have already been batched. "
        "Forcing Flush here to keep events in order.");
    flushed = flushMessagesWithCompletion(nullptr);  // freezes the configuration if it gives a text
  }
  log().debug("HTTPSPostBackend(sendMessage): Sending {}, {:d}, {:d}", stateBefore, batchEvents_,
              requireUserInfo_);
  std::vector<Dictionary> records;
  records.push_back(std::move(record));
  std::optional<std::string> text;
  std::optional<std::string> json = createMessageForPostAndLogging(std::move(records), &text);
  if (!json) return std::nullopt;
  if (flushed) {
    text = fmt::format("Flushed events:\n{}\nStandalone event:\n{}", *flushed,
                       text ? std::string_view(*text) : "(null)");
  }
  postJSONMessage(std::move(*json), flag, method, respCode, nullptr);
  return text;
}

std::optional<std::string> HTTPSPostBackend::batchEvent(Dictionary record) {
  const int64_t method = record["_method"].intValue();
  int32_t count = stateQueue_->sync([this, method] {
    if (!batchedEvents_) batchedEvents_.emplace(services_.batchMemory, services_.holder);
    return batchedEvents_->countOfMethod(method);
  });
  std::optional<std::string> flushed;
  if (count > eventThreshold_) {
    log().debug(
        "HTTPSPostBackend(batchEvent): "
        "Flushing all batched events as we reached event threshold for method {}",
        method);
    flushed = flushMessagesWithCompletion(nullptr);
    count = 0;
  }
  append(std::move(record), method, count);
  return flushed;
}

// In a turn of the caller's own: an idle queue takes it without a switch of threads, and
// the caller has waited for the queue to read the count anyway.
void HTTPSPostBackend::append(Dictionary record, int64_t method, int32_t count) {
  bool isFirstOverflow = false;
  const EventBatch::Room room = stateQueue_->sync([&] {
    if (!batchedEvents_) batchedEvents_.emplace(services_.batchMemory, services_.holder);
    // Before the user information there is no client entry and so no filter table.
    const auto filtered =
        filters_.numberOfFilters() > 0 ? EventBatch::Filtered::kYes : EventBatch::Filtered::kNo;
    const EventBatch::Room found = batchedEvents_->append(std::move(record), filtered);
    if (found == EventBatch::Room::kTaken) {
      batchedEvents_->setCountOfMethod(method, count + 1);
      publishBatchSize();
    } else {
      isFirstOverflow = batchedEvents_->noteOverflow();
    }
    return found;
  });
  if (!isFirstOverflow) return;
  const std::string full = room == EventBatch::Room::kBatchFull
                               ? fmt::format("batch of {} bytes", EventBatch::kMaximumBytes)
                               : "its share of the memory of all batches";
  log().error("HTTPSPostBackend(batchEvent): {}: {} is full, dropping events until it is flushed", name_,
              full);
}

bool HTTPSPostBackend::hasBatch() const {
  return stateQueue_->sync([this] { return batchedEvents_.has_value(); });
}

// Only taking the batch needs the queue: from then on its records belong to this call,
// and whoever asks for the state meanwhile need not wait for JSON and compression.
std::optional<std::string> HTTPSPostBackend::flushMessagesWithCompletion(FlushCompletion completion) {
  const auto fail = [&completion](const char* message) -> std::optional<std::string> {
    if (completion) completion(std::nullopt, reportingError(message));
    return std::nullopt;
  };
  TakenBatch batch = stateQueue_->sync([this] { return takeBatch(); });
  switch (batch.obstacle) {
    case FlushObstacle::kNothingToFlush: reportDropped(batch); return fail("Nothing to flush");
    case FlushObstacle::kUserInfoMissing: return fail("Can not flush: userInfo is required");
    case FlushObstacle::kNone: break;
  }
  log().debug("HTTPSPostBackend(flushMessagesWithCompletion): called");
  for (size_t i = 0; i < batch.unfilteredRecords; ++i) filterEvent(batch.records[i]);
  std::vector<Dictionary> records = admittedRecords(std::move(batch.records));
  std::optional<std::string> text;
  std::optional<std::string> json;
  const size_t events = records.size();
  if (!records.empty()) json = createMessageForPostAndLogging(std::move(records), &text);
  if (!json) return fail("Nothing to flush: batched events were completely filtered out");
  postJSONMessage(
      std::move(*json), 0, std::nullopt, std::nullopt,
      [text, completion = std::move(completion)](const std::optional<std::string>&,
                                                 const std::optional<Error>& error) {
        if (completion) completion(text, error);
      },
      events);
  if (text) immutable_ = true;
  return text;
}

HTTPSPostBackend::TakenBatch HTTPSPostBackend::takeBatch() {
  TakenBatch taken{FlushObstacle::kNothingToFlush, state_, {}, 0};
  if (!batchedEvents_) return taken;
  if (state_ == ZunBackendStateEnabled) {
    const bool lacksUserInfo = requireUserInfo_ && !userInfoDict_;
    taken.obstacle = lacksUserInfo ? FlushObstacle::kUserInfoMissing : FlushObstacle::kNone;
    if (lacksUserInfo) return taken;
  }
  taken.unfilteredRecords = batchedEvents_->unfilteredRecords();
  taken.records = batchedEvents_->takeRecords();
  batchedEvents_.reset();
  publishBatchSize();
  return taken;
}

// That a sampled-out device's events go is what sampling is for.
void HTTPSPostBackend::reportDropped(const TakenBatch& batch) const {
  if (batch.records.empty()) return;
  const auto line = [this, &batch](std::string_view reason) {
    return fmt::format(
        "HTTPSPostBackend(flushMessagesWithCompletion): {}: dropping {} batched events, the backend {}",
        name_, batch.records.size(), reason);
  };
  switch (batch.state) {
    case ZunBackendStateAwaitingUserInfo: log().note("{}", line("waits for user information")); break;
    case ZunBackendStateSampledOut: log().debug("{}", line("is sampled out")); break;
    default: log().note("{}", line("is disabled")); break;
  }
}

bool HTTPSPostBackend::admitsEvent(uint16_t method) const {
  if (!isWhitelistedEvent(method)) {
    log().debug(
        "flushMessagesWithCompletion: "
        "Dropping event with category {} as it is not whitelisted for backend {}",
        method, name_);
    return false;
  }
  if (isBlacklistedEvent(method)) {
    log().debug(
        "flushMessagesWithCompletion: "
        "Dropping event with category {} as it is blacklisted for backend {}",
        method, name_);
    return false;
  }
  return true;
}

std::vector<Dictionary> HTTPSPostBackend::admittedRecords(std::vector<Dictionary> records) const {
  Dictionary userInfo = userInfoDict_.value_or(Dictionary());
  filterEvent(userInfo);
  // Every record gets all of it, and it may be another one than when they were batched:
  // a large one times many records must not exceed what a batch may hold.
  const auto userInfoBytes = static_cast<uint32_t>(estimatedObjectSize(Value(userInfo)));
  const size_t mostRecords = EventBatch::kMaximumBytes / std::max<uint32_t>(userInfoBytes, 1);
  size_t dropped = 0;
  std::vector<Dictionary> admitted;
  admitted.reserve(records.size());
  for (Dictionary& record : records) {
    if (!admitsEvent(static_cast<uint16_t>(record["_method"].intValue()))) continue;
    if (admitted.size() >= mostRecords) {
      ++dropped;
      continue;
    }
    record.addEntries(userInfo);
    admitted.push_back(std::move(record));
  }
  if (dropped > 0) {
    log().error(
        "HTTPSPostBackend(flushMessagesWithCompletion): {}: "
        "dropping {} events, too many for user information of {} bytes",
        name_, dropped, userInfoBytes);
  }
  return admitted;
}

void HTTPSPostBackend::setCorrelatedSessionID(const std::string& identifier) {
  ZunReportingBackend::setCorrelatedSessionID(identifier);
  stateQueue_->async(
      [self = std::static_pointer_cast<HTTPSPostBackend>(shared_from_this()), value = Value(identifier)] {
        if (!self->batchedEvents_) return;
        const size_t dropped = self->batchedEvents_->setInAllRecords(Value::literal("_sessionID"), value);
        self->publishBatchSize();
        if (dropped == 0) return;
        self->log().error(
            "HTTPSPostBackend(setCorrelatedSessionID): {}: "
            "dropping {} events, too many for an identifier of {} bytes",
            self->name_, dropped, value.stringValue().size());
      });
}

// Every session's end asks every backend of every session: none of them makes it wait.
uint32_t HTTPSPostBackend::batchedEventsSize() const {
  return batchedEventsSize_.load(std::memory_order_relaxed);
}

void HTTPSPostBackend::publishBatchSize() {
  batchedEventsSize_.store(batchedEvents_ ? batchedEvents_->estimatedSize() : 0, std::memory_order_relaxed);
}

}  // namespace zun
