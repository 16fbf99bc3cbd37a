#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "values/Value.h"

namespace zun {

/// What a storebag does to the keys of event records before they leave the device.
///
/// Built once per configuration, asked for every key of every record: filters are
/// found by key, so a long table costs no more per record than a short one.
/// Threading: immutable. Ownership: shares the storebag's values.
class FilterTable final {
 public:
  enum class Action : int32_t {
    kNone = 0,
    kRemove = 1,
    kSHA256 = 2,
    kBlacklistValues = 3,
    kWhitelistValues = 4,
  };

  FilterTable() = default;
  /// One filter per element, in order. An element that is no dictionary, or whose key
  /// is no string, counts but acts on nothing.
  explicit FilterTable(const Array& filters);

  [[nodiscard]] int32_t numberOfFilters() const { return static_cast<int32_t>(filters_.size()); }

  /// Applies to each key of `record` the first filter that fits the key and the
  /// record's method and status ("_method", "_status", 0 where absent).
  void filterEvent(Dictionary& record) const;

 private:
  struct Filter {
    int32_t method;  // negative: any
    int32_t status;  // negative: any
    Action action;
    Value key;
    Value value;  // a list of texts or one text
  };
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };

  static size_t shapeOf(std::string_view key);
  [[nodiscard]] bool mayHaveFilterFor(std::string_view key) const;
  static Filter filterFromDictionary(const Dictionary& description);
  [[nodiscard]] const Filter* firstFilterFor(std::string_view lowerCaseKey, int32_t method,
                                             int32_t status) const;
  static bool removes(const Filter& filter, const Value& value);
  static bool containsListed(std::string_view text, const Value& listed);

  std::vector<Filter> filters_;
  // Indices into filters_, ascending, by the filters' keys in lower case.
  std::unordered_map<std::string, std::vector<uint32_t>, TextHash, std::equal_to<>> byKey_;
  static constexpr size_t kShapes = 256;
  std::bitset<kShapes> shapes_;  // of those keys
};

}  // namespace zun
