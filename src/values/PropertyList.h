#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "values/Result.h"
#include "values/Value.h"

namespace zun {

/// Limits of what is accepted. Input may come from anyone: it is parsed before any
/// signature is known.
struct PropertyListLimits {
  size_t maximumBytes = size_t{16} << 20;
  size_t maximumDepth = 64;                        // of nested containers
  size_t maximumValues = 1'000'000;                // after shared references are expanded
  size_t maximumExpandedBytes = size_t{64} << 20;  // of strings and data, likewise
};

/// Parses an XML or binary property list, told apart by its first bytes. Takes time in
/// proportion to the input, whatever the input. Dictionaries keep the order of the
/// file; of a key that comes twice the last value counts, in the first one's place.
/// The error is a text for logs. Any thread.
[[nodiscard]] Result<Value, std::string> parsePropertyList(std::string_view bytes,
                                                           const PropertyListLimits& limits = {});

/// Binary form ("bplist00"); equal strings are stored once. Bytes of a string that are
/// not UTF-8 become U+FFFD.
[[nodiscard]] std::string serializeBinaryPropertyList(const Value& value);

/// XML form, indented, for people. It has no form for none (left out), for parts of a
/// second, and for control characters (become U+FFFD).
[[nodiscard]] std::string serializeXMLPropertyList(const Value& value);

}  // namespace zun
