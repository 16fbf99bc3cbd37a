#pragma once

#include <string>

#include "values/Value.h"

namespace zun {

inline std::string keyOf(int i) {
  return "key " + std::to_string(i);
}

/// "key 0" to the last below `count`, each with its number.
inline Dictionary numbered(int count) {
  Dictionary dictionary;
  for (int i = 0; i < count; ++i) dictionary.set(keyOf(i), i);
  return dictionary;
}

}  // namespace zun
