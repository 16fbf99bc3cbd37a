#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>

#include "values/Check.h"
#include "values/Value.h"

/// The heap blocks behind values: for the sources of Value, Array and Dictionary alone.
namespace zun {

namespace detail {

/// Immutable bytes behind a string or data value.
struct BytesStorage {
  std::atomic<uint32_t> references{1};
  size_t length = 0;
  char* text() { return reinterpret_cast<char*>(this + 1); }
};

struct alignas(Value) ArrayStorage {
  std::atomic<uint32_t> references{1};
  uint32_t count = 0;
  uint32_t capacity = 0;
  Value* elements() { return reinterpret_cast<Value*>(this + 1); }
};

/// Entries in insertion order. A removed entry keeps its slot with a none key until
/// the next growth. From a capacity of kIndexedFrom on, `index` finds a key's slot: an
/// open table of slot numbers plus one, twice as large as the capacity at least. Below,
/// one byte for each slot, behind the entries, tells which keys are worth comparing.
struct alignas(Value) DictionaryStorage {
  std::atomic<uint32_t> references{1};
  uint32_t slots = 0;
  uint32_t live = 0;
  uint32_t capacity = 0;
  std::unique_ptr<uint32_t[]> index;
  uint64_t indexMask = 0;
  DictionaryEntry* entries() { return reinterpret_cast<DictionaryEntry*>(this + 1); }
  uint8_t* fingerprints() { return reinterpret_cast<uint8_t*>(entries() + capacity); }
};

static_assert(sizeof(ArrayStorage) % alignof(Value) == 0);
static_assert(sizeof(DictionaryStorage) % alignof(DictionaryEntry) == 0);

template <typename Storage>
void retain(Storage* storage) {
  if (storage != nullptr) storage->references.fetch_add(1, std::memory_order_relaxed);
}

/// True for the holder that has to free it.
template <typename Storage>
bool dropReference(Storage* storage) {
  return storage != nullptr && storage->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

template <typename Storage>
bool isShared(const Storage* storage) {
  return storage->references.load(std::memory_order_acquire) != 1;
}

template <typename Storage>
Storage* allocate(size_t contentBytes) {
  return new (::operator new(sizeof(Storage) + contentBytes)) Storage;
}

template <typename Storage>
void deallocate(Storage* storage) {
  storage->~Storage();
  ::operator delete(static_cast<void*>(storage));
}

inline void destroy(ArrayStorage* storage) {
  std::destroy_n(storage->elements(), storage->count);
  deallocate(storage);
}

inline void destroy(DictionaryStorage* storage) {
  std::destroy_n(storage->entries(), storage->slots);
  deallocate(storage);
}

inline uint32_t grownCapacity(uint32_t current, size_t wanted) {
  ZUN_CHECK(wanted < std::numeric_limits<uint32_t>::max() / 2);
  return std::max({static_cast<uint32_t>(wanted), current + current / 2, uint32_t{4}});
}

}  // namespace detail

}  // namespace zun
