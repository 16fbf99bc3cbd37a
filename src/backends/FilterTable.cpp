#include "backends/FilterTable.h"

#include <algorithm>
#include <array>
#include <utility>

#include "backends/ListMatching.h"
#include "backends/ZunReportingBackend.h"
#include "util/Identifiers.h"
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

uint64_t lengthBit(std::string_view key) {
  return uint64_t{1} << std::min<size_t>(key.size(), 63);
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
    byKey_[lowerCased(key)].push_back(static_cast<uint32_t>(filters_.size() - 1));
    keyLengths_ |= lengthBit(key);
    hasKeysBeyondASCII_ = hasKeysBeyondASCII_ || !isASCII(key);
  }
}

FilterTable::Filter FilterTable::filterFromDictionary(const Dictionary& description) {
  return {numberOrAny(description["method"]), numberOrAny(description["status"]),
          actionFromText(description["action"].stringValue()), description["key"], description["value"]};
}

const FilterTable::Indices* FilterTable::filtersOfKey(std::string_view key) const {
  // Letter case may change the length there.
  if (hasKeysBeyondASCII_ && !isASCII(key)) return filtersOfLowerCaseKey(lowerCased(key));
  if ((keyLengths_ & lengthBit(key)) == 0) return nullptr;
  std::array<char, 64> shortKey;
  std::string longKey;
  char* text = shortKey.data();
  if (key.size() > shortKey.size()) {
    longKey.resize(key.size());
    text = longKey.data();
  }
  std::transform(key.begin(), key.end(), text, lowerCasedASCII);
  return filtersOfLowerCaseKey(std::string_view(text, key.size()));
}

const FilterTable::Indices* FilterTable::filtersOfLowerCaseKey(std::string_view key) const {
  const auto found = byKey_.find(key);
  return found == byKey_.end() ? nullptr : &found->second;
}

const FilterTable::Filter* FilterTable::firstFilterFor(std::string_view key, int32_t method,
                                                       int32_t status) const {
  const Indices* const indices = filtersOfKey(key);
  if (indices == nullptr) return nullptr;
  for (const uint32_t index : *indices) {
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
  struct Hit {
    const Filter* filter;
    DictionaryEntry entry;
  };
  std::vector<Hit> hits;
  for (const DictionaryEntry& entry : record) {
    const Filter* const filter = firstFilterFor(entry.key.stringValue(), method, status);
    if (filter != nullptr && filter->action != Action::kNone) hits.push_back({filter, entry});
  }
  for (const Hit& hit : hits) apply(*hit.filter, hit.entry.key, hit.entry.value, record);
}

void FilterTable::apply(const Filter& filter, const Value& key, const Value& value, Dictionary& record) {
  switch (filter.action) {
    case Action::kRemove: record.remove(key.stringValue()); break;
    case Action::kSHA256: record.set(key, ZunReportingBackend::convertIntoSHA256(value)); break;
    case Action::kBlacklistValues:
      if (value.isString() && containsListed(value.stringValue(), filter.value)) {
        record.remove(key.stringValue());
      }
      break;
    case Action::kWhitelistValues:
      if (value.isString() && !containsListed(value.stringValue(), filter.value)) {
        record.remove(key.stringValue());
      }
      break;
    case Action::kNone: break;
  }
}

bool FilterTable::containsListed(std::string_view text, const Value& listed) {
  if (listed.isString()) return containsIgnoringCase(text, listed.stringValue());
  const Array* const list = listed.array();
  return list != nullptr && std::any_of(list->begin(), list->end(), [text](const Value& element) {
           return containsIgnoringCase(text, element.stringValue());
         });
}

}  // namespace zun
