#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "values/SeededHash.h"
#include "values/Value.h"
#include "values/ValueStorage.h"

namespace zun {

using namespace detail;

namespace {

constexpr uint32_t kIndexedFrom = 48;

/// Eight bits of a key's length, beginning and end: enough to tell most keys of a small
/// dictionary apart. A client that chooses keys alike gains nothing but the comparisons.
uint8_t fingerprintOf(std::string_view text) {
  uint64_t head = 0;
  uint64_t tail = 0;
  if (text.size() >= sizeof head) {
    std::memcpy(&head, text.data(), sizeof head);
    std::memcpy(&tail, text.data() + text.size() - sizeof tail, sizeof tail);
  } else if (text.size() >= sizeof(uint32_t)) {
    std::memcpy(&head, text.data(), sizeof(uint32_t));
    std::memcpy(&tail, text.data() + text.size() - sizeof(uint32_t), sizeof(uint32_t));
  } else if (!text.empty()) {
    head = static_cast<unsigned char>(text.front());
    tail = static_cast<unsigned char>(text[text.size() / 2]);
  }
  const uint64_t mixed = (head ^ (tail * 0xFF51AFD7ED558CCDULL) ^ text.size()) * 0x9E3779B97F4A7C15ULL;
  return static_cast<uint8_t>(mixed >> 56);
}

void insertIntoIndex(DictionaryStorage& storage, std::string_view key, uint32_t slot) {
  uint64_t place = seededHash(key) & storage.indexMask;
  while (storage.index[place] != 0) place = (place + 1) & storage.indexMask;
  storage.index[place] = slot + 1;
}

/// Makes the keys of a block findable. Its capacity has been set, its slots filled.
void buildIndex(DictionaryStorage& storage) {
  if (storage.capacity < kIndexedFrom) {
    for (uint32_t slot = 0; slot < storage.slots; ++slot) {
      storage.fingerprints()[slot] = fingerprintOf(storage.entries()[slot].key.stringValue());
    }
    return;
  }
  uint64_t places = 1;
  while (places < uint64_t{storage.capacity} * 2) places *= 2;
  storage.index = std::make_unique<uint32_t[]>(places);
  storage.indexMask = places - 1;
  for (uint32_t slot = 0; slot < storage.slots; ++slot) {
    insertIntoIndex(storage, storage.entries()[slot].key.stringValue(), slot);
  }
}

/// In a block without an index.
DictionaryEntry* findByFingerprint(DictionaryStorage& storage, std::string_view key, uint8_t fingerprint) {
  DictionaryEntry* const entries = storage.entries();
  const uint8_t* const all = storage.fingerprints();
  for (uint32_t slot = 0; slot < storage.slots; ++slot) {
    const void* const next = std::memchr(all + slot, fingerprint, storage.slots - slot);
    if (next == nullptr) return nullptr;
    slot = static_cast<uint32_t>(static_cast<const uint8_t*>(next) - all);
    if (!entries[slot].key.isNone() && entries[slot].key.stringValue() == key) return &entries[slot];
  }
  return nullptr;
}

DictionaryEntry* find(DictionaryStorage* storage, std::string_view key) {
  if (storage == nullptr) return nullptr;
  if (storage->index == nullptr) return findByFingerprint(*storage, key, fingerprintOf(key));
  DictionaryEntry* const entries = storage->entries();
  for (uint64_t place = seededHash(key) & storage->indexMask; storage->index[place] != 0;
       place = (place + 1) & storage->indexMask) {
    DictionaryEntry& entry = entries[storage->index[place] - 1];
    if (!entry.key.isNone() && entry.key.stringValue() == key) return &entry;
  }
  return nullptr;
}

/// A copy, or the moved content, of `from` in a block with room for `capacity`
/// entries and without the removed ones.
DictionaryStorage* rebuilt(DictionaryStorage* from, uint32_t capacity, bool moveContent) {
  const size_t fingerprintBytes = capacity < kIndexedFrom ? capacity : 0;
  auto* storage = allocate<DictionaryStorage>(size_t{capacity} * sizeof(DictionaryEntry) + fingerprintBytes);
  storage->capacity = capacity;
  for (uint32_t slot = 0; from != nullptr && slot < from->slots; ++slot) {
    DictionaryEntry& entry = from->entries()[slot];
    if (entry.key.isNone()) continue;
    DictionaryEntry* const place = storage->entries() + storage->slots++;
    if (moveContent) {
      new (place) DictionaryEntry(std::move(entry));
    } else {
      new (place) DictionaryEntry(entry);
    }
  }
  storage->live = storage->slots;
  buildIndex(*storage);
  return storage;
}

}  // namespace

Dictionary::Dictionary(std::initializer_list<DictionaryEntry> entries) {
  mutableStorage(entries.size());
  for (const DictionaryEntry& entry : entries) set(entry.key, entry.value);
}

Dictionary::Dictionary(const Dictionary& other) noexcept : storage_(other.storage_) {
  retain(storage_);
}

Dictionary::~Dictionary() {
  if (dropReference(storage_)) destroy(storage_);
}

Dictionary Dictionary::withCapacity(size_t capacity) {
  Dictionary dictionary;
  dictionary.mutableStorage(capacity);
  return dictionary;
}

size_t Dictionary::size() const {
  return storage_ == nullptr ? 0 : storage_->live;
}

const Value& Dictionary::operator[](std::string_view key) const {
  const DictionaryEntry* const entry = find(storage_, key);
  return entry == nullptr ? Value::none() : entry->value;
}

bool Dictionary::contains(std::string_view key) const {
  return find(storage_, key) != nullptr;
}

DictionaryStorage* Dictionary::mutableStorage(size_t capacity) {
  const bool fits = storage_ != nullptr && storage_->capacity >= capacity;
  if (fits && !isShared(storage_)) return storage_;
  const uint32_t current = storage_ == nullptr ? 0 : storage_->capacity;
  // Slots of removed keys are given up here: when half are, the block need not grow.
  const bool reusesSlots =
      storage_ != nullptr && storage_->live + 1 <= current / 2 && capacity <= size_t{current} + 1;
  const uint32_t room = fits || reusesSlots ? current : grownCapacity(current, capacity);
  auto* storage = rebuilt(storage_, room, storage_ != nullptr && !isShared(storage_));
  if (dropReference(storage_)) destroy(storage_);
  return storage_ = storage;
}

void Dictionary::set(Value key, Value value) {
  if (value.isNone()) {
    remove(key.stringValue());
    return;
  }
  ZUN_ASSERT(key.isString());
  if (!key.isString()) return;
  const std::string_view text = key.stringValue();
  const bool hasIndex = storage_ != nullptr && storage_->index != nullptr;
  const uint8_t fingerprint = hasIndex ? 0 : fingerprintOf(text);
  DictionaryEntry* entry = nullptr;
  if (storage_ != nullptr)
    entry = hasIndex ? find(storage_, text) : findByFingerprint(*storage_, text, fingerprint);
  if (entry != nullptr) {
    if (isShared(storage_)) entry = find(mutableStorage(storage_->capacity), text);
    entry->value = std::move(value);
    return;
  }
  DictionaryStorage* const storage = mutableStorage(storage_ == nullptr ? 1 : size_t{storage_->slots} + 1);
  if (storage->index != nullptr) {
    insertIntoIndex(*storage, text, storage->slots);
  } else {
    storage->fingerprints()[storage->slots] = fingerprint;  // a block with an index keeps one
  }
  new (storage->entries() + storage->slots) DictionaryEntry{std::move(key), std::move(value)};
  ++storage->slots;
  ++storage->live;
}

void Dictionary::remove(std::string_view key) {
  DictionaryEntry* entry = find(storage_, key);
  if (entry == nullptr) return;
  DictionaryStorage* storage = storage_;
  if (isShared(storage_)) {
    const Value ownKey = entry->key;  // `key` may stand in the block that is let go of here
    storage = mutableStorage(storage_->capacity);
    entry = find(storage, ownKey.stringValue());
  }
  entry->key = Value();
  entry->value = Value();
  --storage->live;
}

// By value: `other` may be this very dictionary, or live inside it.
void Dictionary::addEntries(Dictionary other) {
  // A block that was reserved for more stays.
  if (empty() && (storage_ == nullptr || storage_->capacity < other.size())) {
    *this = std::move(other);
    return;
  }
  for (const DictionaryEntry& entry : other) set(entry.key, entry.value);
}

Dictionary::Iterator Dictionary::begin() const {
  if (storage_ == nullptr) return {};
  return {storage_->entries(), storage_->entries() + storage_->slots};
}

Dictionary::Iterator Dictionary::end() const {
  if (storage_ == nullptr) return {};
  const DictionaryEntry* const end = storage_->entries() + storage_->slots;
  return {end, end};
}

size_t Dictionary::allocationSize() const {
  return storage_ == nullptr ? 0 : malloc_usable_size(storage_);
}

bool operator==(const Dictionary& left, const Dictionary& right) {
  if (left.storage_ == right.storage_) return true;
  return left.size() == right.size() &&
         std::all_of(left.begin(), left.end(), [&right](const DictionaryEntry& entry) {
           return right[entry.key.stringValue()] == entry.value;
         });
}

}  // namespace zun
