#include "EventSink.h"

#include "values/JSONReader.h"
#include "values/JSONWriter.h"
#include "values/Value.h"

namespace zun {

namespace {

/// Why `body` is no post body; empty if it is one.
std::string whyNotAPostBody(const Value& body) {
  const Dictionary* const object = body.dictionary();
  if (object == nullptr) return "the body is no JSON object";
  if (!(*object)["postTime"].isNumber()) return "\"postTime\" is missing or no number";
  if (!(*object)["clientId"].isString()) return "\"clientId\" is missing or no string";
  const Array* const events = (*object)["events"].array();
  if (events == nullptr) return "\"events\" is missing or no array";
  for (const Value& event : *events) {
    if (!event.isDictionary()) return "an element of \"events\" is no object";
  }
  return {};
}

}  // namespace

Result<uint64_t, std::string> EventSink::accept(std::string_view body, uint64_t wireBytes) {
  const auto parsed = parseJSON(body);
  if (!parsed) return refuse("the body is no JSON: " + parsed.error());
  if (std::string why = whyNotAPostBody(*parsed); !why.empty()) return refuse(std::move(why));

  const Array& events = *(*parsed->dictionary())["events"].array();
  std::string lines;
  for (const Value& event : events) lines += writeJSON(event, JSONFormat::kCompact) + "\n";

  if (std::string error = file_.append(lines); !error.empty()) return refuse(std::move(error));

  const MutexLock lock(mutex_);
  ++totals_.posts;
  totals_.events += events.size();
  totals_.wireBytes += wireBytes;
  totals_.bodyBytes += body.size();
  return uint64_t{events.size()};
}

CollectedTotals EventSink::totals() const {
  const MutexLock lock(mutex_);
  return totals_;
}

Result<uint64_t, std::string> EventSink::refuse(std::string why) {
  const MutexLock lock(mutex_);
  ++totals_.refusedPosts;
  return Result<uint64_t, std::string>::failure(std::move(why));
}

}  // namespace zun
