#include <malloc.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "values/Value.h"
#include "values/ValueStorage.h"

namespace zun {

using namespace detail;

Array::Array(std::initializer_list<Value> elements) {
  mutableStorage(elements.size());
  for (const Value& element : elements) append(element);
}

Array::Array(const Array& other) noexcept : storage_(other.storage_) {
  retain(storage_);
}

Array::~Array() {
  if (dropReference(storage_)) destroy(storage_);
}

Array Array::withCapacity(size_t capacity) {
  Array array;
  array.mutableStorage(capacity);
  return array;
}

size_t Array::size() const {
  return storage_ == nullptr ? 0 : storage_->count;
}

const Value& Array::operator[](size_t index) const {
  return index < size() ? storage_->elements()[index] : Value::none();
}

const Value* Array::begin() const {
  return storage_ == nullptr ? nullptr : storage_->elements();
}

const Value* Array::end() const {
  return begin() + size();
}

ArrayStorage* Array::mutableStorage(size_t capacity) {
  const bool fits = storage_ != nullptr && storage_->capacity >= capacity;
  if (fits && !isShared(storage_)) return storage_;
  const uint32_t room =
      fits ? storage_->capacity : grownCapacity(storage_ == nullptr ? 0 : storage_->capacity, capacity);
  auto* storage = allocate<ArrayStorage>(size_t{room} * sizeof(Value));
  storage->capacity = room;
  if (storage_ != nullptr) {
    if (isShared(storage_)) {
      std::uninitialized_copy_n(storage_->elements(), storage_->count, storage->elements());
    } else {
      std::uninitialized_move_n(storage_->elements(), storage_->count, storage->elements());
    }
    storage->count = storage_->count;
    if (dropReference(storage_)) destroy(storage_);
  }
  return storage_ = storage;
}

void Array::append(Value value) {
  ArrayStorage* const storage = mutableStorage(size() + 1);
  new (storage->elements() + storage->count) Value(std::move(value));
  ++storage->count;
}

void Array::replace(size_t index, Value value) {
  if (index >= size()) return;
  mutableStorage(size())->elements()[index] = std::move(value);
}

size_t Array::allocationSize() const {
  return storage_ == nullptr ? 0 : malloc_usable_size(storage_);
}

bool operator==(const Array& left, const Array& right) {
  return left.storage_ == right.storage_ || std::equal(left.begin(), left.end(), right.begin(), right.end());
}

}  // namespace zun
