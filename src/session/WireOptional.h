#pragma once

#include <utility>

#include "values/Value.h"

namespace zun {

/// An optional value as it travels: an array of no or one element.
[[nodiscard]] inline Value wireOptional(Value value) {
  return value.isNone() ? Value(Array()) : Value(Array{std::move(value)});
}

}  // namespace zun
