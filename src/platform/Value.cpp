#include "platform/Value.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <random>

#include "platform/Check.h"

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

}  // namespace detail

namespace {

using detail::ArrayStorage;
using detail::BytesStorage;
using detail::DictionaryStorage;

constexpr uint32_t kIndexedFrom = 48;

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

void destroy(ArrayStorage* storage) {
  std::destroy_n(storage->elements(), storage->count);
  deallocate(storage);
}

void destroy(DictionaryStorage* storage) {
  std::destroy_n(storage->entries(), storage->slots);
  deallocate(storage);
}

uint32_t grownCapacity(uint32_t current, size_t wanted) {
  ZUN_CHECK(wanted < std::numeric_limits<uint32_t>::max() / 2);
  return std::max({static_cast<uint32_t>(wanted), current + current / 2, uint32_t{4}});
}

/// Keys come from clients, so the index is seeded: nobody outside can choose keys
/// that collide.
uint64_t hashOf(std::string_view text) {
  static const uint64_t seed = std::random_device{}() * 0x9E3779B97F4A7C15ULL | 1;
  uint64_t hash = seed ^ (text.size() * 0xFF51AFD7ED558CCDULL);
  __extension__ using Product = unsigned __int128;
  const auto mix = [&hash](uint64_t word) {
    const auto product = static_cast<Product>(hash ^ word) * 0xA0761D6478BD642FULL;
    hash = static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64) ^ seed;
  };
  uint64_t word = 0;
  while (text.size() >= sizeof word) {
    std::memcpy(&word, text.data(), sizeof word);
    mix(word);
    text.remove_prefix(sizeof word);
  }
  word = 0;
  if (!text.empty()) std::memcpy(&word, text.data(), text.size());
  mix(word);
  return hash;
}

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
  uint64_t place = hashOf(key) & storage.indexMask;
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

DictionaryEntry* find(DictionaryStorage* storage, std::string_view key) {
  if (storage == nullptr) return nullptr;
  DictionaryEntry* const entries = storage->entries();
  if (storage->index == nullptr) {
    const uint8_t fingerprint = fingerprintOf(key);
    const uint8_t* const all = storage->fingerprints();
    for (uint32_t slot = 0; slot < storage->slots; ++slot) {
      const void* const next = std::memchr(all + slot, fingerprint, storage->slots - slot);
      if (next == nullptr) return nullptr;
      slot = static_cast<uint32_t>(static_cast<const uint8_t*>(next) - all);
      if (!entries[slot].key.isNone() && entries[slot].key.stringValue() == key) return &entries[slot];
    }
    return nullptr;
  }
  for (uint64_t place = hashOf(key) & storage->indexMask; storage->index[place] != 0;
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

int64_t leadingInteger(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return 0;
  text.remove_prefix(start);
  const bool negative = text.front() == '-';
  if (negative || text.front() == '+') text.remove_prefix(1);
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  if (error == std::errc::invalid_argument) return 0;
  constexpr auto kLimit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  if (error == std::errc::result_out_of_range || magnitude > kLimit) {
    return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
}

double leadingReal(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return 0;
  text.remove_prefix(start);
  const bool negative = text.front() == '-';
  const std::string_view digits = negative || text.front() == '+' ? text.substr(1) : text;
  // A number begins with a digit or a point: "nan" and "infinity" are words here.
  if (digits.empty() || (digits.front() != '.' && (digits.front() < '0' || digits.front() > '9'))) return 0;
  double number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error == std::errc::invalid_argument) return 0;
  if (error == std::errc::result_out_of_range) {
    // Too large or too small? This one tells, with infinity or 0.
    number = std::strtod(std::string(digits.data(), end).c_str(), nullptr);
  }
  return negative ? -number : number;
}

bool booleanOfText(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return false;
  text.remove_prefix(start);
  if (text.front() == '-' || text.front() == '+') text.remove_prefix(1);
  const size_t significant = text.find_first_not_of('0');
  if (significant == std::string_view::npos) return false;
  const char first = text[significant];
  return std::string_view("YyTt").find(first) != std::string_view::npos || (first >= '1' && first <= '9');
}

int64_t integerOfReal(double real) {
  if (std::isnan(real)) return 0;
  if (real >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
  if (real <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(real);
}

/// Text of one line: control characters are escaped.
void appendLine(std::string& out, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    }
  }
}

void appendHex(std::string& out, std::string_view bytes) {
  constexpr size_t kShown = 32;
  out += '<';
  for (const char byte : bytes.substr(0, kShown)) {
    fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned char>(byte));
  }
  if (bytes.size() > kShown) fmt::format_to(std::back_inserter(out), "... {} bytes", bytes.size());
  out += '>';
}

}  // namespace

// --- Array ---------------------------------------------------------------------

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

// --- Dictionary ----------------------------------------------------------------

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
  if (DictionaryEntry* entry = find(storage_, key.stringValue()); entry != nullptr) {
    if (isShared(storage_)) entry = find(mutableStorage(storage_->capacity), key.stringValue());
    entry->value = std::move(value);
    return;
  }
  DictionaryStorage* const storage = mutableStorage(storage_ == nullptr ? 1 : size_t{storage_->slots} + 1);
  if (storage->index != nullptr) {
    insertIntoIndex(*storage, key.stringValue(), storage->slots);
  } else {
    storage->fingerprints()[storage->slots] = fingerprintOf(key.stringValue());
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

void Dictionary::addEntries(const Dictionary& other) {
  if (empty()) {
    *this = other;
    return;
  }
  const Dictionary source = other;  // `other` may be this very dictionary
  for (const DictionaryEntry& entry : source) set(entry.key, entry.value);
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

// --- Value ---------------------------------------------------------------------

Value::Value(const Value& other) noexcept {
  std::memcpy(static_cast<void*>(this), &other, sizeof(Value));
  switch (wide_.tag) {
    case Tag::kString:
    case Tag::kData: retain(wide_.as.bytes); break;
    case Tag::kArray: retain(wide_.as.array.storage_); break;
    case Tag::kDictionary: retain(wide_.as.dictionary.storage_); break;
    default: break;
  }
}

Value& Value::operator=(Value&& other) noexcept {
  if (this == &other) return *this;
  Value former;
  former.takeFrom(*this);  // ends after this value holds its new content
  takeFrom(other);
  return *this;
}

Value::Value(std::string_view text) : Value() {
  if (text.size() > kInlineCapacity) {
    *this = bytes(Tag::kString, text);
    return;
  }
  inline_ = {Tag::kInlineString, static_cast<uint8_t>(text.size()), {}};
  if (!text.empty()) std::memcpy(inline_.text, text.data(), text.size());
}

Value::Value(Array array) noexcept : Value() {
  wide_.tag = Tag::kArray;
  new (&wide_.as.array) Array(std::move(array));
}

Value::Value(Dictionary dictionary) noexcept : Value() {
  wide_.tag = Tag::kDictionary;
  new (&wide_.as.dictionary) Dictionary(std::move(dictionary));
}

Value Value::literal(std::string_view staticText) noexcept {
  if (staticText.size() <= kInlineCapacity) return Value(staticText);
  Value value;
  value.wide_.tag = Tag::kLiteral;
  value.wide_.length = static_cast<uint32_t>(staticText.size());
  value.wide_.as.literal = staticText.data();
  return value;
}

Value Value::data(std::string_view content) {
  return bytes(Tag::kData, content);
}

Value Value::bytes(Tag tag, std::string_view content) {
  auto* storage = allocate<BytesStorage>(content.size());
  storage->length = content.size();
  if (!content.empty()) std::memcpy(storage->text(), content.data(), content.size());
  Value value;
  value.wide_.tag = tag;
  value.wide_.as.bytes = storage;
  return value;
}

void Value::release() noexcept {
  switch (wide_.tag) {
    case Tag::kString:
    case Tag::kData:
      if (dropReference(wide_.as.bytes)) deallocate(wide_.as.bytes);
      break;
    case Tag::kArray: wide_.as.array.~Array(); break;
    case Tag::kDictionary: wide_.as.dictionary.~Dictionary(); break;
    default: break;
  }
}

int64_t Value::intValue() const {
  if (isBoolean() || isInteger()) return wide_.as.integer;
  if (isReal()) return integerOfReal(wide_.as.real);
  return isString() ? leadingInteger(stringValue()) : 0;
}

double Value::doubleValue() const {
  if (isAboveInt64()) return static_cast<double>(static_cast<uint64_t>(wide_.as.integer));
  if (isBoolean() || isInteger()) return static_cast<double>(wide_.as.integer);
  if (isReal()) return wide_.as.real;
  return isString() ? leadingReal(stringValue()) : 0;
}

bool Value::boolValue() const {
  if (isBoolean() || isInteger()) return wide_.as.integer != 0;
  if (isReal()) return wide_.as.real != 0;
  return isString() && booleanOfText(stringValue());
}

std::string_view Value::stringValue() const {
  switch (wide_.tag) {
    case Tag::kInlineString: return {inline_.text, inline_.length};
    case Tag::kLiteral: return {wide_.as.literal, wide_.length};
    case Tag::kString: return {wide_.as.bytes->text(), wide_.as.bytes->length};
    default: return {};
  }
}

std::optional<std::string_view> Value::string() const {
  return isString() ? std::optional(stringValue()) : std::nullopt;
}

std::string_view Value::dataValue() const {
  return isData() ? std::string_view(wide_.as.bytes->text(), wide_.as.bytes->length) : std::string_view();
}

std::optional<Date> Value::date() const {
  return isDate() ? std::optional(Date{wide_.as.real}) : std::nullopt;
}

size_t Value::utf16Length() const {
  size_t units = 0;
  for (const char character : stringValue()) {
    const auto byte = static_cast<unsigned char>(character);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

std::string Value::description() const {
  std::string text;
  describe(text, 0);
  return text;
}

void Value::describe(std::string& out, int depth) const {
  switch (wide_.tag) {
    case Tag::kNone: out += "(null)"; break;
    case Tag::kBoolean: out += wide_.flag ? "true" : "false"; break;
    case Tag::kInteger:
      if (wide_.flag) {
        out += fmt::to_string(static_cast<uint64_t>(wide_.as.integer));
      } else {
        out += fmt::to_string(wide_.as.integer);
      }
      break;
    case Tag::kReal: out += fmt::to_string(wide_.as.real); break;
    case Tag::kDate: out += dateDescription(Date{wide_.as.real}); break;
    case Tag::kInlineString:
    case Tag::kLiteral:
    case Tag::kString:
      if (depth == 0) {
        out += stringValue();
      } else {
        out += '"';
        appendLine(out, stringValue());
        out += '"';
      }
      break;
    case Tag::kData: appendHex(out, dataValue()); break;
    case Tag::kArray: {
      out += '(';
      const char* separator = "";
      for (const Value& element : wide_.as.array) {
        out += std::exchange(separator, ", ");
        element.describe(out, depth + 1);
      }
      out += ')';
      break;
    }
    case Tag::kDictionary: {
      out += '{';
      const char* separator = "";
      for (const auto& [key, value] : wide_.as.dictionary) {
        out += std::exchange(separator, "; ");
        appendLine(out, key.stringValue());
        out += " = ";
        value.describe(out, depth + 1);
      }
      out += '}';
      break;
    }
  }
}

size_t Value::allocationSize() const {
  switch (wide_.tag) {
    case Tag::kString:
    case Tag::kData: return malloc_usable_size(wide_.as.bytes);
    case Tag::kArray: return wide_.as.array.allocationSize();
    case Tag::kDictionary: return wide_.as.dictionary.allocationSize();
    default: return 0;
  }
}

bool operator==(const Value& left, const Value& right) {
  if (left.isNumber() && right.isNumber()) {
    if (left.isReal() || right.isReal()) return left.doubleValue() == right.doubleValue();
    return left.intValue() == right.intValue() && left.isAboveInt64() == right.isAboveInt64();
  }
  if (left.isString() || right.isString()) {
    return left.isString() && right.isString() && left.stringValue() == right.stringValue();
  }
  if (left.wide_.tag != right.wide_.tag) return false;
  switch (left.wide_.tag) {
    case Value::Tag::kDate: return left.wide_.as.real == right.wide_.as.real;
    case Value::Tag::kData: return left.dataValue() == right.dataValue();
    case Value::Tag::kArray: return left.wide_.as.array == right.wide_.as.array;
    case Value::Tag::kDictionary: return left.wide_.as.dictionary == right.wide_.as.dictionary;
    default: return true;
  }
}

const Value& Value::none() {
  static const Value none;
  return none;
}

}  // namespace zun
