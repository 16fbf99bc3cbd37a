#include "backends/FilterTable.h"

#include <algorithm>
#include <utility>

#include "backends/ListMatching.h"
#include "backends/ZunReportingBackend.h"
#include "values/UTF8.h"

namespace zun {

namespace {

FilterTable::Action actionFromText(std::string_view text) {
  using Action = FilterTable::Action;
  if (text == "remove") return Action::kRemove;
  if (text == "sha256") return Action::kSHA256;
  if (text == "blacklistValues") return Action::kBlacklistValues;
  if (text == "whitelistValues") return Action::kWhitelistValues;
  return Action::kNone;
}

void setLowerCased(std::string& lower, std::string_view text) {
  if (!isASCII(text)) {
    lower = lowerCased(text);
    return;
  }
  lower.resize(text.size());
  std::transform(text.begin(), text.end(), lower.begin(), lowerCasedASCII);
}

int32_t numberOrAny(const Value& number) {
  return number.isNumber() || number.isString() ? number.int32Value() : -1;
}

}  // namespace

FilterTable::FilterTable(const Array& filters) {
  filters_.reserve(filters.size());
  for (const Value& element : filters) {
    const Dictionary* const description = element.dictionary();
    filters_.push_back(filterFromDictionary(description == nullptr ? Dictionary() : *description));
    const std::string_view key = filters_.back().key.stringValue();
    if (!filters_.back().key.isString()) continue;
    std::string lower = lowerCased(key);
    shapes_.set(shapeOf(lower));
    byKey_[std::move(lower)].push_back(static_cast<uint32_t>(filters_.size() - 1));
  }
}

/// Of a key and its form in lower case the same, as long as it is ASCII.
size_t FilterTable::shapeOf(std::string_view key) {
  if (key.empty()) return 0;
  const auto byte = [](char character) {
    return static_cast<size_t>(static_cast<unsigned char>(lowerCasedASCII(character)));
  };
  return (key.size() * 37 + byte(key.front()) * 5 + byte(key.back())) % kShapes;
}

/// False for most keys of most records, without a look-up.
bool FilterTable::mayHaveFilterFor(std::string_view key) const {
  return shapes_[shapeOf(key)] || !isASCII(key);
}

FilterTable::Filter FilterTable::filterFromDictionary(const Dictionary& description) {
  return {numberOrAny(description["method"]), numberOrAny(description["status"]),
          actionFromText(description["action"].stringValue()), description["key"], description["value"]};
}

const FilterTable::Filter* FilterTable::firstFilterFor(std::string_view lowerCaseKey, int32_t method,
                                                       int32_t status) const {
  const auto found = byKey_.find(lowerCaseKey);
  if (found == byKey_.end()) return nullptr;
  for (const uint32_t index : found->second) {
    const Filter& filter = filters_[index];
    const bool fitsMethod = filter.method < 0 || filter.method == method;
    const bool fitsStatus = filter.status < 0 || filter.status == status;
    if (fitsMethod && fitsStatus) return &filter;
  }
  return nullptr;
}

void FilterTable::filterEvent(Dictionary& record) const {
  if (filters_.empty()) return;
  const int32_t method = record["_method"].int32Value();
  const int32_t status = record["_status"].int32Value();
  // What each filter does depends on its own key alone, so the record is changed after
  // the walk: walking a snapshot would copy every record.
  std::vector<DictionaryEntry> changes;
  std::string key;  // one for all: most keys fit into what the longest before took
  for (const DictionaryEntry& entry : record) {
    if (!mayHaveFilterFor(entry.key.stringValue())) continue;
    setLowerCased(key, entry.key.stringValue());
    const Filter* const filter = firstFilterFor(key, method, status);
    if (filter == nullptr) continue;
    if (filter->action == Action::kSHA256) {
      changes.push_back({entry.key, ZunReportingBackend::convertIntoSHA256(entry.value)});
    } else if (removes(*filter, entry.value)) {
      changes.push_back({entry.key, Value()});
    }
  }
  for (DictionaryEntry& change : changes) record.set(std::move(change.key), std::move(change.value));
}

bool FilterTable::removes(const Filter& filter, const Value& value) {
  switch (filter.action) {
    case Action::kRemove: return true;
    case Action::kBlacklistValues:
      return value.isString() && containsListed(value.stringValue(), filter.value);
    case Action::kWhitelistValues:
      return value.isString() && !containsListed(value.stringValue(), filter.value);
    case Action::kNone:
    case Action::kSHA256: break;
  }
  return false;
}

bool FilterTable::containsListed(std::string_view text, const Value& listed) {
  if (listed.isString()) return containsIgnoringCase(text, listed.stringValue());
  const Array* const list = listed.array();
  return list != nullptr && std::any_of(list->begin(), list->end(), [text](const Value& element) {
           return containsIgnoringCase(text, element.stringValue());
         });
}

}  // namespace zun
