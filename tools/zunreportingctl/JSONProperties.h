#pragma once

#include <cstddef>

#include "values/Value.h"
#include "zunreporting/PropertyValue.h"

namespace zun {

/// What the client library sends for values that were read from JSON. None, which has no
/// form there, is left out of arrays and dictionaries, and is an empty string by itself.
[[nodiscard]] zunreporting::PropertyValue propertyOf(const Value& value);
[[nodiscard]] zunreporting::PropertyDictionary propertiesOf(const Dictionary& dictionary);

/// What to write as JSON for values that came from the daemon: data becomes Base64 text,
/// a date its seconds since 1970.
[[nodiscard]] Value jsonValueOf(const zunreporting::PropertyValue& property);
[[nodiscard]] Dictionary jsonValueOf(const zunreporting::PropertyDictionary& properties);

/// Bytes that a value takes in a message at most.
[[nodiscard]] size_t largestMessageSize(const zunreporting::PropertyValue& property);

}  // namespace zun
