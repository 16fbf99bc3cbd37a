#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace zunreporting {

struct PropertyValue;

/// Seconds since 1970.
struct PropertyDate {
  double secondsSince1970 = 0;
};
struct PropertyData {
  std::string bytes;
};
using PropertyArray = std::vector<PropertyValue>;
/// Entries in order; the last of several with one key counts.
using PropertyDictionary = std::vector<std::pair<std::string, PropertyValue>>;

/// What events and session information are made of. Strings are UTF-8.
struct PropertyValue {
  using Content = std::variant<bool, int64_t, uint64_t, double, std::string, PropertyDate, PropertyData,
                               PropertyArray, PropertyDictionary>;
  Content content;

  PropertyValue(bool value) : content(value) {}
  PropertyValue(int32_t value) : content(int64_t{value}) {}
  PropertyValue(uint32_t value) : content(int64_t{value}) {}
  PropertyValue(int64_t value) : content(value) {}
  PropertyValue(uint64_t value) : content(value) {}
  PropertyValue(double value) : content(value) {}
  PropertyValue(const char* value) : content(std::string(value)) {}
  PropertyValue(std::string value) : content(std::move(value)) {}
  PropertyValue(PropertyDate value) : content(value) {}
  PropertyValue(PropertyData value) : content(std::move(value)) {}
  PropertyValue(PropertyArray value) : content(std::move(value)) {}
  PropertyValue(PropertyDictionary value) : content(std::move(value)) {}
};

}  // namespace zunreporting
