#pragma once

#include <string_view>

#include "platform/SystemLog.h"
#include "values/Value.h"

namespace zun {

/// Replaces, in the value under `key` and at any depth below it, every string that
/// begins with "==" and is a key of `sharedValues` by that entry. What stands in its
/// place is not expanded again.
void expandMacroForDataSet(Dictionary& container, std::string_view key, const Dictionary& sharedValues,
                           SystemLog& log);
/// The same for the element at `index`.
void expandMacroForDataSet(Array& container, size_t index, const Dictionary& sharedValues, SystemLog& log);

}  // namespace zun
