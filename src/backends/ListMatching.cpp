#include "backends/ListMatching.h"

#include <algorithm>

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
  StringList components;
  if (!text.isString()) return components;
  std::string_view rest = text.stringValue();
  while (true) {
    const size_t comma = rest.find(',');
    components.push_back(rest.substr(0, comma));
    if (comma == std::string_view::npos) return components;
    rest.remove_prefix(comma + 1);
  }
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
