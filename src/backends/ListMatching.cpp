#include "backends/ListMatching.h"

#include <algorithm>

#include "values/TextParts.h"
#include "values/UTF8.h"

namespace zun {

namespace {

template <typename Matches>
bool matchList(const StringList& list, std::optional<std::string_view> wholeString, bool whitelist,
               Matches matches) {
  if (list.empty()) return whitelist;
  if (!wholeString) return !whitelist;
  return std::any_of(list.begin(), list.end(),
                     [&](std::string_view element) { return matches(*wholeString, element); });
}

}  // namespace

StringList stringsOf(const Value& list) {
  StringList strings;
  if (const Array* const array = list.array()) {
    strings.reserve(array->size());
    for (const Value& element : *array) strings.push_back(element.stringValue());
  }
  return strings;
}

StringList componentsSeparatedByComma(const Value& text) {
  return text.isString() ? partsSplitAtCommas(text.stringValue()) : StringList();
}

bool matchExactStringWithList(const StringList& list, std::optional<std::string_view> wholeString,
                              bool whitelist) {
  return matchList(list, wholeString, whitelist, equalsIgnoringCase);
}

bool matchStringWithList(const StringList& list, std::optional<std::string_view> wholeString,
                         bool whitelist) {
  return matchList(list, wholeString, whitelist, containsIgnoringCase);
}

}  // namespace zun
