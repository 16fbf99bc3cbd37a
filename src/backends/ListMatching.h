#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "values/Value.h"

namespace zun {

/// What a storebag lists names and fragments in: pieces of text that refer to where
/// they stand. An element that is no text is an empty piece, which nothing contains.
using StringList = std::vector<std::string_view>;

/// The strings of a storebag array; no strings where there is no array. Refers to `list`.
[[nodiscard]] StringList stringsOf(const Value& list);

/// The pieces between commas, blanks and all; none where `text` is no string. Refers
/// to `text`.
[[nodiscard]] StringList componentsSeparatedByComma(const Value& text);

/// True if `wholeString` equals an element, letter case ignored. `whitelist` is the
/// answer for an empty list, and its contrary the one for a list without a string.
[[nodiscard]] bool matchExactStringWithList(const StringList& list,
                                            std::optional<std::string_view> wholeString, bool whitelist);

/// True if `wholeString` contains an element, letter case ignored; else as above.
[[nodiscard]] bool matchStringWithList(const StringList& list, std::optional<std::string_view> wholeString,
                                       bool whitelist);

}  // namespace zun
