#include "JSONProperties.h"

#include <string>

#include "values/Base64.h"

namespace zun {

namespace {

using zunreporting::PropertyArray;
using zunreporting::PropertyData;
using zunreporting::PropertyDate;
using zunreporting::PropertyDictionary;
using zunreporting::PropertyValue;

struct ToValue {
  Value operator()(bool value) const { return value; }
  Value operator()(int64_t value) const { return value; }
  Value operator()(uint64_t value) const { return value; }
  Value operator()(double value) const { return value; }
  Value operator()(const std::string& value) const { return value; }
  Value operator()(const PropertyDate& value) const { return value.secondsSince1970; }
  Value operator()(const PropertyData& value) const { return base64Encode(value.bytes); }
  Value operator()(const PropertyArray& value) const {
    Array array;
    for (const PropertyValue& element : value) array.append(jsonValueOf(element));
    return array;
  }
  Value operator()(const PropertyDictionary& value) const { return jsonValueOf(value); }
};

// A variant's own signature, its padding, and the length of a text or array in it.
constexpr size_t kOverhead = 32;

struct MessageSize {
  template <typename Number>
  size_t operator()(const Number&) const {
    return kOverhead;
  }
  size_t operator()(const std::string& value) const { return kOverhead + value.size(); }
  size_t operator()(const PropertyData& value) const { return kOverhead + value.bytes.size(); }
  size_t operator()(const PropertyArray& value) const {
    size_t size = kOverhead;
    for (const PropertyValue& element : value) size += largestMessageSize(element);
    return size;
  }
  size_t operator()(const PropertyDictionary& value) const {
    size_t size = kOverhead;
    for (const auto& [key, element] : value) size += kOverhead + key.size() + largestMessageSize(element);
    return size;
  }
};

}  // namespace

PropertyValue propertyOf(const Value& value) {
  if (value.isBoolean()) return value.boolValue();
  if (value.isAboveInt64()) return static_cast<uint64_t>(value.intValue());
  if (value.isInteger()) return value.intValue();
  if (value.isReal()) return value.doubleValue();
  if (const Dictionary* const dictionary = value.dictionary()) return propertiesOf(*dictionary);
  if (const Array* const array = value.array()) {
    PropertyArray elements;
    for (const Value& element : *array) {
      if (!element.isNone()) elements.push_back(propertyOf(element));
    }
    return elements;
  }
  return std::string(value.stringValue());
}

PropertyDictionary propertiesOf(const Dictionary& dictionary) {
  PropertyDictionary properties;
  for (const auto& [key, value] : dictionary) properties.emplace_back(key.stringValue(), propertyOf(value));
  return properties;
}

Value jsonValueOf(const PropertyValue& property) {
  return std::visit(ToValue{}, property.content);
}

Dictionary jsonValueOf(const PropertyDictionary& properties) {
  Dictionary dictionary;
  for (const auto& [key, value] : properties) dictionary.set(key, jsonValueOf(value));
  return dictionary;
}

size_t largestMessageSize(const PropertyValue& property) {
  return std::visit(MessageSize{}, property.content);
}

}  // namespace zun
