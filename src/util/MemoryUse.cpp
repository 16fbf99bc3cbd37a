#include "util/MemoryUse.h"

#include "platform/ProcessMemory.h"

namespace zun {

namespace {

// Unsigned, so that the sum wraps instead of overflowing.
uint32_t estimate(const Value& value) {
  const auto allocated = [](const Value& of) { return static_cast<uint32_t>(of.allocationSize()); };
  uint32_t size = allocated(value);
  if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& [key, element] : *dictionary) {
      size += allocated(key) + estimate(element) + allocated(element);
    }
  } else if (const Array* array = value.array()) {
    for (const Value& element : *array) size += estimate(element) + allocated(element);
  }
  return size;
}

}  // namespace

int32_t estimatedObjectSize(const Value& value) {
  return static_cast<int32_t>(estimate(value));
}

size_t allocatedBytes(const Value& value) {
  size_t bytes = value.allocationSize();
  if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& [key, element] : *dictionary) bytes += key.allocationSize() + allocatedBytes(element);
  } else if (const Array* array = value.array()) {
    for (const Value& element : *array) bytes += allocatedBytes(element);
  }
  return bytes;
}

uint64_t processMemoryInUse() {
  return anonymousMemoryInUse();
}

}  // namespace zun
