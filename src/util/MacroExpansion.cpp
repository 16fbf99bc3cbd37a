#include "util/MacroExpansion.h"

#include <optional>

namespace zun {

namespace {

constexpr std::string_view kMacroPrefix = "==";

// What stands in the place of `value`, or none where it stays. Parsers bound the depth
// of what comes here, and with it this recursion.
std::optional<Value> expanded(const Value& value, const Dictionary& sharedValues, SystemLog& log) {
  if (const Dictionary* dictionary = value.dictionary()) {
    std::optional<Dictionary> copy;  // made with the first change: what has no macro stays shared
    for (const auto& [key, element] : *dictionary) {
      auto replacement = expanded(element, sharedValues, log);
      if (!replacement) continue;
      if (!copy) copy = *dictionary;
      copy->set(key, *std::move(replacement));
    }
    return copy ? std::optional<Value>(*std::move(copy)) : std::nullopt;
  }
  if (const Array* array = value.array()) {
    std::optional<Array> copy;
    for (size_t index = 0; index < array->size(); ++index) {
      auto replacement = expanded((*array)[index], sharedValues, log);
      if (!replacement) continue;
      if (!copy) copy = *array;
      copy->replace(index, *std::move(replacement));
    }
    return copy ? std::optional<Value>(*std::move(copy)) : std::nullopt;
  }
  if (!value.stringValue().starts_with(kMacroPrefix)) return std::nullopt;
  const Value& sharedValue = sharedValues[value.stringValue()];
  if (sharedValue.isNone()) return std::nullopt;
  log.debug("expandMacroForDataSet: Expanding macro '{}' into '{}'", value, sharedValue);
  return sharedValue;
}

}  // namespace

void expandMacroForDataSet(Dictionary& container, std::string_view key, const Dictionary& sharedValues,
                           SystemLog& log) {
  if (auto replacement = expanded(container[key], sharedValues, log)) {
    container.set(Value(key), *std::move(replacement));
  }
}

void expandMacroForDataSet(Array& container, size_t index, const Dictionary& sharedValues, SystemLog& log) {
  if (index >= container.size()) return;
  if (auto replacement = expanded(container[index], sharedValues, log)) {
    container.replace(index, *std::move(replacement));
  }
}

}  // namespace zun
