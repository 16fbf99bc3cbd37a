#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "linux/service/EntitlementStore.h"
#include "linux/service/PeerIdentity.h"
#include "platform/ServiceConnection.h"

namespace zun {

/// A peer with what the rules decided for it at one moment.
class KnownPeer final : public ServicePeer {
 public:
  KnownPeer(PeerIdentity identity, PeerRights rights)
      : identity_(std::move(identity)), rights_(std::move(rights)) {}

  [[nodiscard]] const PeerIdentity& identity() const { return identity_; }

  std::optional<bool> booleanEntitlement(std::string_view name) const override {
    const auto found = rights_.find(name);
    return found == rights_.end() ? std::nullopt : std::optional(found->second.isEntitled);
  }
  ClientClaims claims(std::string_view entitlement) const override {
    const auto found = rights_.find(entitlement);
    return found == rights_.end() ? ClientClaims() : found->second.claims;
  }
  uint32_t user() const override { return identity_.user; }
  std::string description() const override { return identity_.description(); }

 private:
  PeerIdentity identity_;
  PeerRights rights_;
};

}  // namespace zun
