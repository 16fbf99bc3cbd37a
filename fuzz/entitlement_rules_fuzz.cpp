#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "linux/service/EntitlementRules.h"
#include "values/PropertyList.h"

namespace {

using zun::Dictionary;
using zun::Value;

constexpr std::string_view kKnown[] = {"user",        "group",       "executable", "entitlements",
                                       "clientTypes", "clientNames", "hierarchies"};

/// A rule holds for no more peers, and lets them claim no more, than its dictionary says.
void judge(const Dictionary& said, const zun::EntitlementRule& rule) {
  for (const auto& [key, value] : said) {
    check(std::find(std::begin(kKnown), std::end(kKnown), key.stringValue()) != std::end(kKnown),
          "a key that is not known");
  }
  check(rule.user || rule.group, "a rule for everybody");
  check(rule.user.has_value() == said.contains("user"), "the user");
  check(rule.group.has_value() == said.contains("group"), "the group");
  check(rule.executable.has_value() == said.contains("executable"), "the executable");
  check(rule.claims.clientTypes.has_value() == said.contains("clientTypes"), "the client types");
  check(rule.claims.clientNames.has_value() == said.contains("clientNames"), "the client names");
  check(rule.claims.onlyOwnHierarchies == said.contains("hierarchies"), "the hierarchies");
  for (const auto& [name, isEntitled] : rule.entitlements) {
    const Value& value = (*said["entitlements"].dictionary())[name];
    check(value.isBoolean() && value.boolValue() == isEntitled, "an entitlement");
  }
}

}  // namespace

/// What is wrong never widens a rule: a file counts with all of its rules, each with every
/// condition that it names, or not at all.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto rules = zun::parseEntitlementRules(bytes);
  if (!rules) {
    check(!rules.error().empty(), "a failure without a text");
    return 0;
  }
  const auto content = zun::parsePropertyList(bytes);
  check(content && (*content).isArray() && (*content).array()->size() == rules->size(), "all rules");
  size_t index = 0;
  for (const Value& element : *(*content).array()) {
    check(element.isDictionary(), "a rule that is no dictionary");
    judge(*element.dictionary(), (*rules)[index++]);
  }
  return 0;
}
