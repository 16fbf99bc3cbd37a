#include "linux/service/EntitlementRules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>

#include "values/PropertyList.h"
#include "values/Value.h"

namespace zun {

namespace {

/// What is wrong; empty if nothing is.
using Fault = std::string;

constexpr std::array<std::string_view, 7> kKeys{"user",        "group",       "executable", "entitlements",
                                                "clientTypes", "clientNames", "hierarchies"};

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

Fault takeAccount(const Dictionary& dictionary, std::string_view key, std::optional<AccountName>& account) {
  const Value& value = dictionary[key];
  if (value.isNone()) return {};
  if (value.isString() && !value.stringValue().empty() && !isNumber(value.stringValue())) {
    account = std::string(value.stringValue());
    return {};
  }
  const int64_t number = value.intValue();
  const bool isNumeric = value.isInteger() || (value.isString() && isNumber(value.stringValue()));
  // The largest one stands for none.
  if (!isNumeric || number < 0 || number >= std::numeric_limits<uint32_t>::max()) {
    return fmt::format("'{}' is neither a name nor a number", key);
  }
  account = static_cast<uint32_t>(number);
  return {};
}

Fault takeExecutable(const Dictionary& dictionary, std::optional<std::string>& executable) {
  const Value& value = dictionary["executable"];
  if (value.isNone()) return {};
  const std::string_view path = value.stringValue();
  if (!value.isString() || !path.starts_with('/')) {
    return "'executable' is no absolute path";
  }
  executable = std::string(path);
  return {};
}

Fault takeEntitlements(const Dictionary& dictionary, EntitlementRule& rule) {
  const Dictionary* const entitlements = dictionary["entitlements"].dictionary();
  if (entitlements == nullptr) return "'entitlements' is no dictionary";
  for (const auto& [name, value] : *entitlements) {
    if (!value.isBoolean()) return fmt::format("the entitlement '{}' is no boolean", name.stringValue());
    rule.entitlements.emplace(name.stringValue(), value.boolValue());
  }
  return {};
}

Fault takeClaims(const Dictionary& dictionary, ClientClaims& claims) {
  if (const Value& types = dictionary["clientTypes"]; !types.isNone()) {
    claims.clientTypes.emplace();
    if (!types.isArray()) return "'clientTypes' is no array";
    for (const Value& type : *types.array()) {
      if (!type.isInteger() || type.isAboveInt64()) return "'clientTypes' holds what is no integer";
      claims.clientTypes->push_back(type.intValue());
    }
  }
  if (const Value& names = dictionary["clientNames"]; !names.isNone()) {
    claims.clientNames.emplace();
    if (!names.isArray()) return "'clientNames' is no array";
    for (const Value& name : *names.array()) {
      if (!name.isString()) return "'clientNames' holds what is no string";
      claims.clientNames->emplace_back(name.stringValue());
    }
  }
  if (const Value& hierarchies = dictionary["hierarchies"]; !hierarchies.isNone()) {
    if (!hierarchies.isString() || hierarchies.stringValue() != "own") return "'hierarchies' is not \"own\"";
    claims.onlyOwnHierarchies = true;
  }
  return {};
}

Fault takeRule(const Value& element, EntitlementRule& rule) {
  const Dictionary* const dictionary = element.dictionary();
  if (dictionary == nullptr) return "it is no dictionary";
  for (const auto& [key, value] : *dictionary) {
    if (std::find(kKeys.begin(), kKeys.end(), key.stringValue()) == kKeys.end()) {
      return fmt::format("there is no key '{}'", key.stringValue());
    }
  }
  if (Fault fault = takeAccount(*dictionary, "user", rule.user); !fault.empty()) return fault;
  if (Fault fault = takeAccount(*dictionary, "group", rule.group); !fault.empty()) return fault;
  if (Fault fault = takeExecutable(*dictionary, rule.executable); !fault.empty()) return fault;
  if (Fault fault = takeEntitlements(*dictionary, rule); !fault.empty()) return fault;
  if (Fault fault = takeClaims(*dictionary, rule.claims); !fault.empty()) return fault;
  if (!rule.user && !rule.group) {
    return rule.executable ? "it has neither 'user' nor 'group', and an executable alone authenticates nobody"
                           : "it has neither 'user' nor 'group'";
  }
  return {};
}

}  // namespace

Result<std::vector<EntitlementRule>, std::string> parseEntitlementRules(std::string_view bytes) {
  using Parsed = Result<std::vector<EntitlementRule>, std::string>;
  const auto content = parsePropertyList(bytes);
  if (!content) return Parsed::failure(content.error());
  const Array* const elements = (*content).array();
  if (elements == nullptr) return Parsed::failure("it is no array of rules");
  std::vector<EntitlementRule> rules;
  for (const Value& element : *elements) {
    const Fault fault = takeRule(element, rules.emplace_back());
    if (!fault.empty()) return Parsed::failure(fmt::format("rule {}: {}", rules.size(), fault));
  }
  return rules;
}

}  // namespace zun
