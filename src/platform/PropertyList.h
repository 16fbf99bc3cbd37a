#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/Result.h"
#include "platform/Value.h"

namespace zun {

/// Limits of what is accepted. Input may come from anyone: it is parsed before any
/// signature is known.
struct PropertyListLimits {
  size_t maximumBytes = size_t{16} << 20;
  size_t maximumDepth = 64;
  size_t maximumValues = 1'000'000;  // after shared references are expanded
};

/// Parses an XML or binary property list, told apart by its first bytes. The error is
/// a text for logs.
[[nodiscard]] Result<Value, std::string> parsePropertyList(std::string_view bytes,
                                                           const PropertyListLimits& limits = {});

/// Binary form ("bplist00"). None values inside arrays are not representable and
/// must not occur.
[[nodiscard]] std::string serializeBinaryPropertyList(const Value& value);

/// XML form, indented, for people.
[[nodiscard]] std::string serializeXMLPropertyList(const Value& value);

}  // namespace zun
