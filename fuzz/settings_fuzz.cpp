// Files in /etc: who is entitled, and what the device is. A value of a wrong kind never
// widens a rule, and never becomes a property.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <variant>

#include "FuzzCheck.h"
#include "FuzzLog.h"
#include "linux/service/EntitlementRules.h"
#include "linux/system/SystemDeviceProperties.h"
#include "support/ScratchFolder.h"
#include "support/TestFileManager.h"
#include "values/PropertyList.h"

namespace {

using zun::Array;
using zun::Dictionary;
using zun::Value;

void judgeAccount(const Value& written, const std::optional<zun::AccountName>& read) {
  check(written.isNone() != read.has_value(), "an account is read where one is written");
  if (!read) return;
  if (const auto* const name = std::get_if<std::string>(&*read)) {
    check(written.string() == *name && !name->empty(), "a name is read as it is written");
  } else {
    const uint32_t number = std::get<uint32_t>(*read);
    check(number != UINT32_MAX, "the number stands for none");
    check(written.isInteger() || written.isString(), "an account is of another kind");
    check(!written.isInteger() || written == Value(number), "another number is read");
  }
}

/// Every condition that is written holds, and nothing is granted but what is written so.
void judgeRule(const Dictionary& written, const zun::EntitlementRule& rule) {
  judgeAccount(written["user"], rule.user);
  judgeAccount(written["group"], rule.group);
  check(rule.user || rule.group, "a rule is for everybody");
  const Value& executable = written["executable"];
  check(executable.isNone() ? !rule.executable : executable.string() == rule.executable,
        "another executable is read");
  const Dictionary* const entitlements = written["entitlements"].dictionary();
  check(entitlements != nullptr, "entitlements are of another kind");
  for (const auto& [name, isGranted] : rule.entitlements)
    check((*entitlements)[name] == Value(isGranted) && (*entitlements)[name].isBoolean(),
          "another right is read");
  const Value& types = written["clientTypes"];
  check(types.isNone() != rule.claims.clientTypes.has_value(),
        "client types are read where they are written");
  if (rule.claims.clientTypes)
    check(types.array() != nullptr && types.array()->size() == rule.claims.clientTypes->size(),
          "other types");
  const Value& names = written["clientNames"];
  check(names.isNone() != rule.claims.clientNames.has_value(),
        "client names are read where they are written");
  if (rule.claims.clientNames)
    check(names.array() != nullptr && names.array()->size() == rule.claims.clientNames->size(),
          "other names");
  check(written["hierarchies"].isNone() != rule.claims.onlyOwnHierarchies,
        "hierarchies are narrowed as written");
  check(written.size() == size_t{rule.user.has_value()} + rule.group.has_value() +
                              rule.executable.has_value() + 1 + rule.claims.clientTypes.has_value() +
                              rule.claims.clientNames.has_value() + rule.claims.onlyOwnHierarchies,
        "a key is not understood");
}

void readRules(std::string_view bytes) {
  const auto rules = zun::parseEntitlementRules(bytes);
  if (!rules) return check(!rules.error().empty(), "a refusal without a reason");
  const auto content = zun::parsePropertyList(bytes);
  const Array* const written = content ? content->array() : nullptr;
  check(written != nullptr && written->size() == rules->size(), "as many rules as are written");
  for (size_t i = 0; i < rules->size(); ++i) {
    const Dictionary* const rule = (*written)[i].dictionary();
    check(rule != nullptr, "a rule is of another kind");
    judgeRule(*rule, (*rules)[i]);
  }
}

void readDevice(std::string_view bytes) {
  static FuzzLog log;
  static zun::ScratchFolder scratch;
  static zun::TestFileManager files(scratch.path(), "/home/tester");
  static const std::string path = files.resolve("/etc/zunreportingd/device.plist");
  if (files.createDirectories(files.resolve("/etc/zunreportingd"))) return;
  std::FILE* const file = std::fopen(path.c_str(), "wbe");
  check(file != nullptr, "a file");
  std::fwrite(bytes.data(), 1, bytes.size(), file);
  std::fclose(file);
  const zun::SystemDeviceProperties device(files, log, scratch.path());
  const auto content = zun::parsePropertyList(bytes);
  const Dictionary* const written = content ? content->dictionary() : nullptr;
  for (const char* const key : {"ReleaseType", "ProductType", "DeviceName", "SerialNumber"}) {
    const auto property = device.property(key);
    const Value value = written == nullptr ? Value() : (*written)[key];
    const bool isText = value.isString() || value.isNumber();
    if (property && isText) check(*property == value.description(), "another property is read");
    check(!property || isText || std::string_view(key) != "ReleaseType", "a property that nobody wrote");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  readRules(bytes);
  readDevice(bytes);
  return 0;
}
