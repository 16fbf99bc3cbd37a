// Metrics adaptors that each lack one thing, chosen when they are compiled.

#include <cstring>
#include <stdexcept>

#include "zunreporting/kodo_adaptor.h"

namespace {

[[maybe_unused]] int object;

void* create() {
#ifdef WITHOUT_OBJECT
  return nullptr;
#else
  return &object;
#endif
}

void destroy(void*) {}

const char* description(void*) {
  return nullptr;
}

int respondsTo(void*, const char* operation) {
#ifdef WITHOUT_OPERATION
  return std::strcmp(operation, "anotherOperation:") == 0;
#else
  return std::strcmp(operation, ZUN_KODO_SEND_MESSAGE) == 0;
#endif
}

[[maybe_unused]] void perform(void*, const char*, uint16_t, uint16_t, const zun_kodo_value*,
                              const zun_kodo_accessors*) {
#ifdef WITH_EXCEPTION
  throw std::runtime_error("not for the daemon");
#endif
}

#ifdef WITH_ANOTHER_VERSION
constexpr uint32_t kVersion = ZUN_KODO_ABI_VERSION + 1;
#else
constexpr uint32_t kVersion = ZUN_KODO_ABI_VERSION;
#endif
#ifdef WITHOUT_FUNCTION
[[maybe_unused]] const zun_kodo_class kClass{kVersion, create, destroy, description, respondsTo, nullptr};
#else
[[maybe_unused]] const zun_kodo_class kClass{kVersion, create, destroy, description, respondsTo, perform};
#endif

}  // namespace

#ifndef WITHOUT_ENTRY_POINT
const zun_kodo_class* zun_kodo_class_named(uint32_t, const char*) {
#ifdef WITHOUT_CLASS
  return nullptr;
#else
  return &kClass;
#endif
}
#endif
