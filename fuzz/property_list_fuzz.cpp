#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "values/PropertyList.h"

namespace {

using zun::Value;

/// Values of a list when it is written out.
size_t countOf(const Value& value) {
  size_t count = 1;
  if (const auto* const array = value.array()) {
    for (const Value& element : *array) count += countOf(element);
  } else if (const auto* const dictionary = value.dictionary()) {
    for (const auto& [key, entry] : *dictionary) count += 1 + countOf(entry);
  }
  return count;
}

}  // namespace

/// Whatever is accepted stays within the limits, and says the same once it is written
/// in the binary form and read again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const zun::PropertyListLimits limits{.maximumValues = 20'000, .maximumExpandedBytes = 1 << 20};
  const auto value = zun::parsePropertyList({reinterpret_cast<const char*>(data), size}, limits);
  if (!value) {
    check(!value.error().empty(), "a failure without a text");
    return 0;
  }
  check(countOf(*value) <= limits.maximumValues, "more values than are allowed");

  const std::string binary = zun::serializeBinaryPropertyList(*value);
  const auto again = zun::parsePropertyList(binary);
  check(static_cast<bool>(again), "the binary form is not read again");
  // Compared as bytes: a number that is none is not equal to itself.
  check(zun::serializeBinaryPropertyList(*again) == binary, "the binary form reads as another value");
  check(static_cast<bool>(zun::parsePropertyList(zun::serializeXMLPropertyList(*value))) || value->isNone(),
        "the XML form is not read again");
  return 0;
}
