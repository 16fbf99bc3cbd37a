#include "values/KeyedArchiver.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "values/SeededHash.h"

namespace zun {

namespace {

constexpr std::string_view kFormatKey = "format";
constexpr std::string_view kVersionKey = "version";
constexpr std::string_view kObjectsKey = "objects";
constexpr std::string_view kTopKey = "top";
constexpr std::string_view kKeysKey = "keys";
constexpr std::string_view kValuesKey = "values";

void appendNumber(std::string& out, uint64_t number) {
  for (size_t i = 0; i < sizeof number; ++i) out += static_cast<char>(number >> (8 * i));
}

/// Enters each different object into the table once, what it contains before it.
class Archiver final {
 public:
  /// The object's index; none where it nests too deep.
  std::optional<int64_t> enter(const Value& value, size_t depth) {
    const bool isContainer = value.isArray() || value.isDictionary();
    if (isContainer && depth >= kKeyedArchiveDepth) return std::nullopt;
    if (const Array* const array = value.array()) return enterArray(*array, depth);
    if (const Dictionary* const dictionary = value.dictionary()) return enterDictionary(*dictionary, depth);
    return indexOf(identityOfScalar(value), value);
  }

  Array takeObjects() { return std::move(objects_); }

 private:
  using Indices = std::vector<int64_t>;

  std::optional<int64_t> enterArray(const Array& array, size_t depth) {
    Indices elements;
    elements.reserve(array.size());
    for (const Value& element : array) {
      if (!enterChild(element, depth, elements)) return std::nullopt;
    }
    return indexOf(identityOfContainer('a', elements), arrayOf(elements));
  }

  std::optional<int64_t> enterDictionary(const Dictionary& dictionary, size_t depth) {
    Indices keys;
    Indices values;
    for (const auto& [key, entry] : dictionary) {
      if (!enterChild(key, depth, keys) || !enterChild(entry, depth, values)) return std::nullopt;
    }
    std::string identity = identityOfContainer('d', keys);
    for (const int64_t index : values) appendNumber(identity, static_cast<uint64_t>(index));
    Dictionary object = Dictionary::withCapacity(2);
    object.set(Value::literal(kKeysKey), arrayOf(keys));
    object.set(Value::literal(kValuesKey), arrayOf(values));
    return indexOf(std::move(identity), std::move(object));
  }

  bool enterChild(const Value& child, size_t depth, Indices& into) {
    const std::optional<int64_t> index = enter(child, depth + 1);
    if (index) into.push_back(*index);
    return index.has_value();
  }

  int64_t indexOf(std::string identity, Value object) {
    const auto [known, isNew] =
        indices_.try_emplace(std::move(identity), static_cast<int64_t>(objects_.size()));
    if (isNew) objects_.append(std::move(object));
    return known->second;
  }

  static Array arrayOf(const Indices& indices) {
    Array array = Array::withCapacity(indices.size());
    for (const int64_t index : indices) array.append(index);
    return array;
  }

  /// Kind and exact content: 1, 1.0 and true are three objects.
  static std::string identityOfScalar(const Value& value) {
    std::string identity;
    if (value.isString()) return identity.append("s").append(value.stringValue());
    if (value.isData()) return identity.append("x").append(value.dataValue());
    if (value.isNone()) return "n";
    uint64_t bits = static_cast<uint64_t>(value.intValue());
    if (value.isReal()) bits = std::bit_cast<uint64_t>(value.doubleValue());
    if (const auto date = value.date()) bits = std::bit_cast<uint64_t>(date->secondsSince1970);
    identity += value.isBoolean()      ? 'b'
                : value.isReal()       ? 'r'
                : value.isDate()       ? 't'
                : value.isAboveInt64() ? 'u'
                                       : 'i';
    appendNumber(identity, bits);
    return identity;
  }

  static std::string identityOfContainer(char kind, const Indices& indices) {
    std::string identity(1, kind);
    identity.reserve(1 + indices.size() * sizeof(uint64_t));
    for (const int64_t index : indices) appendNumber(identity, static_cast<uint64_t>(index));
    return identity;
  }

  std::unordered_map<std::string, int64_t, SeededHash> indices_;
  Array objects_;
};

/// Builds the objects of a table in its order, so that what one contains is there.
class Unarchiver final {
 public:
  using Outcome = Result<Value, std::string>;

  explicit Unarchiver(const PropertyListLimits& limits) : limits_(limits) {}

  Outcome read(const Value& list) {
    const Dictionary* const archive = list.dictionary();
    if (archive == nullptr || (*archive)[kFormatKey].stringValue() != kKeyedArchiveFormat)
      return Outcome::failure("not a keyed archive");
    const Value& version = (*archive)[kVersionKey];
    if (!version.isInteger() || version.intValue() != kKeyedArchiveVersion)
      return Outcome::failure("an unknown version of the archive");
    const Array* const objects = (*archive)[kObjectsKey].array();
    if (objects == nullptr) return Outcome::failure("an archive without a table");
    objects_.reserve(objects->size());
    for (const Value& object : *objects) {
      Object built;
      if (!build(object, built)) return Outcome::failure(failure_);
      objects_.push_back(std::move(built));
    }
    const Object* const top = at((*archive)[kTopKey]);
    return top == nullptr ? Outcome::failure(failure_) : Outcome(top->value);
  }

 private:
  struct Object {
    Value value;
    size_t values = 1;  // all counts: when written out
    size_t bytes = 0;
    size_t height = 0;  // of containers, itself included
  };

  bool fail(const char* why) {
    failure_ = why;
    return false;
  }

  /// The object that an index means; null where there is none so far.
  const Object* at(const Value& index) {
    const int64_t number = index.intValue();
    if (!index.isInteger() || index.isAboveInt64() || number < 0 ||
        static_cast<uint64_t>(number) >= objects_.size()) {
      fail("an index of no object");
      return nullptr;
    }
    return &objects_[static_cast<size_t>(number)];
  }

  bool build(const Value& object, Object& built) {
    if (const Array* const elements = object.array()) return buildArray(*elements, built);
    if (const Dictionary* const dictionary = object.dictionary()) {
      const Array* const keys = (*dictionary)[kKeysKey].array();
      const Array* const values = (*dictionary)[kValuesKey].array();
      if (keys == nullptr || values == nullptr || keys->size() != values->size())
        return fail("a dictionary without as many values as keys");
      return buildDictionary(*keys, *values, built);
    }
    built.value = object;
    built.bytes = object.stringValue().size() + object.dataValue().size();
    return true;
  }

  bool buildArray(const Array& elements, Object& built) {
    Array array = Array::withCapacity(elements.size());
    built.height = 1;
    for (const Value& index : elements) {
      const Object* const element = at(index);
      if (element == nullptr || !count(*element, built)) return false;
      array.append(element->value);
    }
    built.value = Value(std::move(array));
    return built.height <= limits_.maximumDepth || fail("nested too deep");
  }

  bool buildDictionary(const Array& keys, const Array& values, Object& built) {
    Dictionary dictionary = Dictionary::withCapacity(keys.size());
    built.height = 1;
    for (size_t i = 0; i < keys.size(); ++i) {
      const Object* const key = at(keys[i]);
      if (key == nullptr) return false;
      if (!key->value.isString()) return fail("a key that is no string");
      const Object* const value = at(values[i]);
      if (value == nullptr || !count(*key, built) || !count(*value, built)) return false;
      dictionary.set(key->value, value->value);
    }
    built.value = Value(std::move(dictionary));
    return built.height <= limits_.maximumDepth || fail("nested too deep");
  }

  /// Both sides are within the limits, so no sum overflows.
  bool count(const Object& child, Object& parent) {
    parent.values += child.values;
    parent.bytes += child.bytes;
    parent.height = std::max(parent.height, child.height + 1);
    if (parent.values > limits_.maximumValues) return fail("too many values");
    return parent.bytes <= limits_.maximumExpandedBytes || fail("too large when written out");
  }

  const PropertyListLimits& limits_;
  std::vector<Object> objects_;
  const char* failure_ = "";
};

}  // namespace

std::optional<std::string> archiveObject(const Value& root) try {
  Archiver archiver;
  const std::optional<int64_t> top = archiver.enter(root, 0);
  if (!top) return std::nullopt;
  return serializeBinaryPropertyList(Dictionary{
      {Value::literal(kFormatKey), Value::literal(kKeyedArchiveFormat)},
      {Value::literal(kVersionKey), kKeyedArchiveVersion},
      {Value::literal(kObjectsKey), archiver.takeObjects()},
      {Value::literal(kTopKey), *top},
  });
} catch (const std::bad_alloc&) {
  return std::nullopt;
}

Result<Value, std::string> unarchiveObject(std::string_view bytes, const PropertyListLimits& limits) try {
  const auto list = parsePropertyList(bytes, limits);
  if (!list) return list;
  return Unarchiver(limits).read(*list);
} catch (const std::bad_alloc&) {
  return Result<Value, std::string>::failure("out of memory");
}

}  // namespace zun
