// The file in /etc that says what the device is: a value of a wrong kind never becomes a
// property.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "FuzzLog.h"
#include "linux/system/SystemDeviceProperties.h"
#include "support/ScratchFolder.h"
#include "support/TestFileManager.h"
#include "values/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzLog log;
  static zun::ScratchFolder scratch;
  static zun::TestFileManager files(scratch.path(), "/home/tester");
  static const std::string path = files.resolve("/etc/zunreportingd/device.plist");
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  check(!files.createDirectories(files.resolve("/etc/zunreportingd")), "a folder");
  std::FILE* const file = std::fopen(path.c_str(), "wbe");
  check(file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size(), "a file");
  std::fclose(file);

  const zun::SystemDeviceProperties device(files, log, scratch.path());
  const auto content = zun::parsePropertyList(bytes);
  const zun::Dictionary* const written = content ? content->dictionary() : nullptr;
  for (const char* const key : {"ReleaseType", "ProductType", "DeviceName", "SerialNumber"}) {
    const auto property = device.property(key);
    const zun::Value value = written == nullptr ? zun::Value() : (*written)[key];
    const bool isText = value.isString() || value.isNumber();
    if (isText) check(property == value.description(), "another property is read");
    if (!isText && std::string_view(key) == "ReleaseType") check(!property, "a property that nobody wrote");
  }
  return 0;
}
