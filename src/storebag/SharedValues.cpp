#include "storebag/SharedValues.h"

#include <string_view>
#include <utility>

#include "util/MacroExpansion.h"
#include "values/TextParts.h"

namespace zun {

Dictionary expandSharedValues(const Dictionary& storebag, SystemLog& log) {
  const Dictionary* stored = storebag["shared_values"].dictionary();
  if (stored == nullptr || stored->empty()) return storebag;
  Dictionary sharedValues = *stored;
  for (const auto& [key, value] : *stored) {
    if (!value.isString()) continue;
    Array parts;
    for (const std::string_view part : partsSplitAtCommas(value.stringValue())) parts.append(part);
    sharedValues.set(key, std::move(parts));
  }
  Dictionary expanded = storebag;
  expanded.remove("shared_values");
  for (const std::string_view section : {"vantix_internal", "development", "seed", "release"}) {
    expandMacroForDataSet(expanded, section, sharedValues, log);
  }
  return expanded;
}

}  // namespace zun
