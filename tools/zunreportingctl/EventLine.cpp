#include "EventLine.h"

#include <optional>

#include "JSONProperties.h"
#include "values/JSONReader.h"
#include "values/Value.h"

namespace zun {

namespace {

using zunreporting::Event;
using EventResult = Result<Event, std::string>;

/// A number of the line that must be whole and lie between 0 and `largest`.
std::optional<uint32_t> wholeNumber(const Value& value, int64_t largest) {
  const int64_t number = value.intValue();
  if (!value.isInteger() || value.isAboveInt64() || number < 0 || number > largest) return std::nullopt;
  return static_cast<uint32_t>(number);
}

}  // namespace

EventResult eventFromLine(std::string_view line) {
  const auto parsed = parseJSON(line);
  if (!parsed) return EventResult::failure("not JSON: " + parsed.error());
  const Dictionary* const object = parsed->dictionary();
  if (object == nullptr) return EventResult::failure("not a JSON object");

  Event event;
  const auto category = wholeNumber((*object)["category"], 65535);
  if (!category) return EventResult::failure("\"category\" must be a whole number from 0 to 65535");
  event.category = static_cast<uint16_t>(*category);
  const auto type = wholeNumber((*object)["type"], 65535);
  if (!type) return EventResult::failure("\"type\" must be a whole number from 0 to 65535");
  event.type = static_cast<uint16_t>(*type);
  if (const Value& flag = (*object)["flag"]; !flag.isNone()) {
    const auto bits = wholeNumber(flag, 0x7FFFFFFF);
    if (!bits) return EventResult::failure("\"flag\" must be a whole number");
    event.flag = *bits;
  }
  if (const Value& payload = (*object)["payload"]; !payload.isNone()) {
    if (!payload.isDictionary()) return EventResult::failure("\"payload\" must be an object");
    event.payload = propertiesOf(*payload.dictionary());
  }
  for (const auto& [key, value] : *object) {
    const auto name = key.stringValue();
    if (name != "category" && name != "type" && name != "payload" && name != "flag") {
      return EventResult::failure("unknown field \"" + std::string(name) + "\"");
    }
  }
  return event;
}

}  // namespace zun
