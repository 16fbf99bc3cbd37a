// What clients' payloads become in posts, and what tools read: JSON, both ways.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "StrictJSON.h"
#include "values/JSONReader.h"
#include "values/JSONWriter.h"
#include "values/PropertyList.h"
#include "values/UTF8.h"

namespace {

using zun::JSONFormat;
using zun::Value;

/// Whatever a value is, what is written of it is JSON for others, and reads as it was written.
void write(const Value& value) {
  for (const JSONFormat format : {JSONFormat::kCompact, JSONFormat::kPretty}) {
    const std::string text = zun::writeJSON(value, format);
    check(StrictJSON::accepts(text), "what was written is no JSON");
    check(zun::isValidUTF8(text), "what was written is no UTF-8");
    check(format == JSONFormat::kPretty || text.find('\n') == std::string::npos, "more than one line");
    const auto again = zun::parseJSON(text);
    check(static_cast<bool>(again), "what was written is not read");
    const std::string second = zun::writeJSON(*again, JSONFormat::kCompact);
    const auto third = zun::parseJSON(second);
    check(third && zun::writeJSON(*third, JSONFormat::kCompact) == second, "it reads as another value");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto parsed = zun::parseJSON(input);
  if (parsed) {
    check(StrictJSON::accepts(input), "what is no JSON was read");
    write(*parsed);
  } else {
    check(!parsed.error().empty(), "a failure without a text");
  }
  if (const auto value = zun::parsePropertyList(input, {1 << 16, 32, 2'000})) write(*value);
  // As text, key and value: broken UTF-8 and control characters come too.
  write(zun::Dictionary{{Value(input.substr(0, size / 2)), Value(input.substr(size / 2))}});
  return 0;
}
