#include "Received.h"

#include <chrono>

#include "values/Base64.h"
#include "values/UTF8.h"

namespace zun {

double secondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

Value jsonForm(const Value& value) {
  if (const Array* const array = value.array()) {
    Array elements;
    for (const Value& element : *array) elements.append(jsonForm(element));
    return elements;
  }
  if (const Dictionary* const dictionary = value.dictionary()) {
    Dictionary fields;
    for (const auto& [key, element] : *dictionary) fields.set(jsonForm(key), jsonForm(element));
    return fields;
  }
  if (value.isString()) return replacingInvalidUTF8(value.stringValue());
  if (value.isData()) return Dictionary{{"base64", base64Encode(value.dataValue())}};
  if (const auto date = value.date()) return Dictionary{{"date", date->secondsSince1970}};
  return value;
}

}  // namespace zun
