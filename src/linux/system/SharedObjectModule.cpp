#include "linux/system/SharedObjectModule.h"

#include <fmt/format.h>

#include <cstring>
#include <type_traits>
#include <utility>

namespace zun {

namespace {

// --- Values as modules read them -------------------------------------------------------

const zun_kodo_value* opaque(const Value& value) {
  return reinterpret_cast<const zun_kodo_value*>(&value);
}

const Value& valueOf(const zun_kodo_value* value) {
  return value == nullptr ? Value::none() : *reinterpret_cast<const Value*>(value);
}

zun_kodo_bytes bytesOf(std::string_view text) {
  return {text.data(), text.size()};
}

int kindOf(const zun_kodo_value* opaqueValue) {
  const Value& value = valueOf(opaqueValue);
  if (value.isBoolean()) return ZUN_KODO_BOOLEAN;
  if (value.isInteger()) return ZUN_KODO_INTEGER;
  if (value.isReal()) return ZUN_KODO_REAL;
  if (value.isString()) return ZUN_KODO_STRING;
  if (value.isData()) return ZUN_KODO_DATA;
  if (value.isDate()) return ZUN_KODO_DATE;
  if (value.isArray()) return ZUN_KODO_ARRAY;
  return value.isDictionary() ? ZUN_KODO_DICTIONARY : ZUN_KODO_NONE;
}

double secondsOf(const zun_kodo_value* value) {
  const auto date = valueOf(value).date();
  return date ? date->secondsSince1970 : 0;
}

size_t countOf(const zun_kodo_value* container) {
  if (const Dictionary* const dictionary = valueOf(container).dictionary()) return dictionary->size();
  const Array* const array = valueOf(container).array();
  return array == nullptr ? 0 : array->size();
}

const zun_kodo_value* valueForKey(const zun_kodo_value* value, const char* key, size_t length) {
  const Dictionary* const dictionary = valueOf(value).dictionary();
  if (dictionary == nullptr || key == nullptr) return nullptr;
  const Value& found = (*dictionary)[std::string_view(key, length)];
  return found.isNone() ? nullptr : opaque(found);
}

/// A container's iterator as it lies in a cursor's room; all zeros is the beginning.
template <typename Iterator>
struct Place {
  Iterator iterator;
};

template <typename Container, typename Give>
int advance(const Container& container, zun_kodo_cursor& cursor, Give give) {
  Place<decltype(container.begin())> place{container.begin()};
  static_assert(sizeof place <= sizeof cursor.place && std::is_trivially_copyable_v<decltype(place)>);
  if (cursor.place[0] != nullptr) std::memcpy(static_cast<void*>(&place), cursor.place, sizeof place);
  if (place.iterator == container.end()) return 0;
  give(*place.iterator);
  ++place.iterator;
  std::memcpy(cursor.place, &place, sizeof place);
  return 1;
}

int nextElement(const zun_kodo_value* container, zun_kodo_cursor* cursor, zun_kodo_bytes* key,
                const zun_kodo_value** value) {
  if (cursor == nullptr) return 0;
  const auto give = [key, value](std::string_view name, const Value& element) {
    if (key != nullptr) *key = bytesOf(name);
    if (value != nullptr) *value = opaque(element);
  };
  if (const Dictionary* const dictionary = valueOf(container).dictionary()) {
    return advance(*dictionary, *cursor,
                   [&give](const DictionaryEntry& entry) { give(entry.key.stringValue(), entry.value); });
  }
  const Array* const array = valueOf(container).array();
  if (array == nullptr) return 0;
  return advance(*array, *cursor, [&give](const Value& element) { give({}, element); });
}

constexpr zun_kodo_accessors kAccessors{
    .size = sizeof(zun_kodo_accessors),
    .kind = kindOf,
    .boolean = [](const zun_kodo_value* value) { return valueOf(value).boolValue() ? 1 : 0; },
    .integer = [](const zun_kodo_value* value) { return valueOf(value).intValue(); },
    .is_unsigned = [](const zun_kodo_value* value) { return valueOf(value).isAboveInt64() ? 1 : 0; },
    .real = [](const zun_kodo_value* value) { return valueOf(value).doubleValue(); },
    .string = [](const zun_kodo_value* value) { return bytesOf(valueOf(value).stringValue()); },
    .data = [](const zun_kodo_value* value) { return bytesOf(valueOf(value).dataValue()); },
    .date = secondsOf,
    .count = countOf,
    .next = nextElement,
    .value_for_key = valueForKey,
};

// --- Objects ---------------------------------------------------------------------------

class SharedObjectInstance final : public ModuleObject {
 public:
  SharedObjectInstance(const zun_kodo_class& type, void* object) : class_(type), object_(object) {}
  ~SharedObjectInstance() override { class_.destroy(object_); }

  std::string description() const noexcept override {
    const char* const text = class_.description(object_);
    return text == nullptr ? "(null)" : text;
  }
  bool respondsTo(const char* operation) const noexcept override {
    return class_.responds_to(object_, operation) != 0;
  }
  void perform(const char* operation, uint16_t method, uint16_t respCode,
               const Dictionary& dict) noexcept override {
    const Value payload(dict);
    class_.perform(object_, operation, method, respCode, opaque(payload), &kAccessors);
  }

 private:
  const zun_kodo_class& class_;
  void* const object_;
};

bool isComplete(const zun_kodo_class& type) {
  return type.create != nullptr && type.destroy != nullptr && type.description != nullptr &&
         type.responds_to != nullptr && type.perform != nullptr;
}

const zun_kodo_class* classNamed(SharedObjectModule::EntryPoint entryPoint, const char* name) noexcept {
  return entryPoint(ZUN_KODO_ABI_VERSION, name);
}

void* newObject(const zun_kodo_class& type) noexcept {
  return type.create();
}

}  // namespace

SharedObjectModule::SharedObjectModule(std::string path, EntryPoint entryPoint)
    : path_(std::move(path)), entryPoint_(entryPoint) {}

Result<std::unique_ptr<ModuleObject>, std::string> SharedObjectModule::createInstance(
    const char* className) const {
  const auto failure = [this, className](std::string_view reason) {
    return Result<std::unique_ptr<ModuleObject>, std::string>::failure(
        fmt::format("{}: class {} {}", path_, className, reason));
  };
  const zun_kodo_class* const type = classNamed(entryPoint_, className);
  if (type == nullptr) return failure("is missing");
  if (type->abi_version != ZUN_KODO_ABI_VERSION) {
    return failure(
        fmt::format("is of version {} of the interface, not {}", type->abi_version, ZUN_KODO_ABI_VERSION));
  }
  if (!isComplete(*type)) return failure("lacks functions");
  void* const object = newObject(*type);
  if (object == nullptr) return failure("makes no object");
  return std::unique_ptr<ModuleObject>(std::make_unique<SharedObjectInstance>(*type, object));
}

}  // namespace zun
