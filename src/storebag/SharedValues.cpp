#include "storebag/SharedValues.h"

#include <string_view>

#include "util/MacroExpansion.h"

namespace zun {

namespace {

Array partsSplitAtCommas(std::string_view text) {
  Array parts;
  while (true) {
    const size_t comma = text.find(',');
    parts.append(text.substr(0, comma));
    if (comma == std::string_view::npos) return parts;
    text.remove_prefix(comma + 1);
  }
}

}  // namespace

Dictionary expandSharedValues(const Dictionary& storebag, SystemLog& log) {
  const Dictionary* stored = storebag["shared_values"].dictionary();
  if (stored == nullptr || stored->empty()) return storebag;
  Dictionary sharedValues = *stored;
  for (const auto& [key, value] : *stored) {
    if (value.isString()) sharedValues.set(key, partsSplitAtCommas(value.stringValue()));
  }
  Dictionary expanded = storebag;
  expanded.remove("shared_values");
  for (const std::string_view section : {"vantix_internal", "development", "seed", "release"}) {
    expandMacroForDataSet(expanded, section, sharedValues, log);
  }
  return expanded;
}

}  // namespace zun
