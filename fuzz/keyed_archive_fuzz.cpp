#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "FuzzCheck.h"
#include "values/KeyedArchiver.h"

namespace {

using zun::Value;

struct Extent {
  size_t values = 1;
  size_t bytes = 0;
  size_t depth = 0;

  void add(const Extent& child) {
    values += child.values;
    bytes += child.bytes;
    depth = depth > child.depth + 1 ? depth : child.depth + 1;
  }
};

/// What a value is when it is written out.
Extent extentOf(const Value& value) {
  Extent extent{.bytes = value.stringValue().size() + value.dataValue().size()};
  if (const auto* const array = value.array()) {
    extent.depth = 1;
    for (const Value& element : *array) extent.add(extentOf(element));
  } else if (const auto* const dictionary = value.dictionary()) {
    extent.depth = 1;
    for (const auto& [key, entry] : *dictionary) {
      extent.add(extentOf(key));
      extent.add(extentOf(entry));
    }
  }
  return extent;
}

}  // namespace

/// Whatever is accepted stays within the limits, and says the same once it is archived
/// and read again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const zun::PropertyListLimits limits{.maximumValues = 20'000, .maximumExpandedBytes = 1 << 20};
  const auto value = zun::unarchiveObject({reinterpret_cast<const char*>(data), size}, limits);
  if (!value) {
    check(!value.error().empty(), "a failure without a text");
    return 0;
  }
  const Extent extent = extentOf(*value);
  check(extent.values <= limits.maximumValues, "more values than are allowed");
  check(extent.bytes <= limits.maximumExpandedBytes, "more bytes than are allowed");
  check(extent.depth <= limits.maximumDepth, "deeper than is allowed");

  const std::optional<std::string> archive = zun::archiveObject(*value);
  check(archive.has_value(), "what was read has no archive");
  const auto again = zun::unarchiveObject(*archive);
  check(static_cast<bool>(again), "the archive is not read again");
  // Compared as bytes: a number that is none is not equal to itself.
  check(zun::archiveObject(*again) == archive, "the archive reads as another value");
  return 0;
}
