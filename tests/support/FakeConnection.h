#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/files/FileExtensions.h"
#include "platform/ServiceConnection.h"

namespace zun {

/// One end of a connection, without a peer: the test makes the calls and ends it. The
/// file extensions are the real ones, for a peer with the rights of this process. Calls
/// of the peer's object are kept; they may come from any thread.
class FakeConnection final : public ServiceConnection {
 public:
  explicit FakeConnection(std::map<std::string, bool> entitlements, std::string description = "test peer")
      : entitlements_(std::move(entitlements)), description_(std::move(description)) {}

  std::optional<bool> booleanEntitlement(std::string_view name) const override {
    const auto found = entitlements_.find(std::string(name));
    return found == entitlements_.end() ? std::nullopt : std::optional(found->second);
  }
  ClientClaims claims(std::string_view) const override { return clientClaims; }
  uint32_t user() const override { return userID; }
  std::string description() const override { return description_; }
  std::shared_ptr<SandboxExtensions> sandboxExtensions() const override { return extensions; }
  BudgetHolder budgetHolder() const override { return holder; }
  BudgetHolder programHolder() const override { return program; }
  bool isWanted() const override { return wanted; }
  void setExportedInterface(const ServiceInterface& interface) override {
    setUp.emplace_back("exported interface");
    exportedInterface = &interface;
  }
  void setRemoteObjectInterface(const ServiceInterface& interface) override {
    setUp.emplace_back("remote interface");
    remoteInterface = &interface;
  }
  void setExportedObject(std::shared_ptr<ExportedObject> object) override {
    setUp.emplace_back("exported object");
    exportedObject = std::move(object);
  }
  void setInterruptionHandler(UniqueFunction<void()> handler) override {
    setUp.emplace_back("interruption handler");
    interrupted_ = std::move(handler);
  }
  void setInvalidationHandler(UniqueFunction<void()> handler) override {
    setUp.emplace_back("invalidation handler");
    invalidated_ = std::move(handler);
  }
  void resume() override {
    setUp.emplace_back("resume");
    isResumed = true;
  }

  /// As the real one: the handler is called once, then all is let go.
  void invalidate() override {
    extensions->invalidate();
    if (const auto handler = std::exchange(invalidated_, {})) handler();
    interrupted_ = {};
    exportedObject = nullptr;
  }
  Result<std::shared_ptr<const EncodedCall>, std::string> encodeCall(size_t member,
                                                                     const Array& arguments) const override {
    if (onEncode) onEncode();
    return std::shared_ptr<const EncodedCall>(std::make_shared<KeptCall>(member, arguments));
  }
  std::optional<std::string> callRemote(const EncodedCall& call) override {
    if (onCall) onCall();
    const auto& kept = static_cast<const KeptCall&>(call);
    const std::lock_guard lock(mutex_);
    if (!remoteFailure_) remoteCalls_.emplace_back(kept.member, kept.arguments);
    return remoteFailure_;
  }

  /// From now on the peer's object cannot be called, for this reason; none: it can.
  void failRemoteCalls(std::optional<std::string> reason) {
    const std::lock_guard lock(mutex_);
    remoteFailure_ = std::move(reason);
  }
  /// Arguments of the calls of the peer's one operation since the last time, in order.
  std::vector<Array> takeRemoteCalls() {
    const std::lock_guard lock(mutex_);
    std::vector<Array> calls;
    for (auto& [member, arguments] : remoteCalls_) {
      if (member == 0) calls.push_back(std::move(arguments));
    }
    remoteCalls_.clear();
    return calls;
  }

  void interrupt() {
    if (interrupted_) interrupted_();
  }

  ClientClaims clientClaims;  // under any entitlement
  uint32_t userID = 1000;
  std::vector<std::string> setUp;  // what was set up, in order
  const ServiceInterface* exportedInterface = nullptr;
  const ServiceInterface* remoteInterface = nullptr;
  std::shared_ptr<ExportedObject> exportedObject;
  const std::shared_ptr<FileExtensions> extensions =
      std::make_shared<FileExtensions>(FileSystemIdentity::ofProcess());
  bool isResumed = false;
  BudgetHolder holder;
  BudgetHolder program;
  std::atomic<bool> wanted{true};
  // Where a test looks in on calls of the peer's object: while one is encoded, and made.
  std::function<void()> onEncode = nullptr;
  std::function<void()> onCall = nullptr;

 private:
  struct KeptCall final : EncodedCall {
    KeptCall(size_t memberToCall, Array values) : member(memberToCall), arguments(std::move(values)) {}

    const size_t member;
    const Array arguments;
  };

  const std::map<std::string, bool> entitlements_;
  const std::string description_;
  UniqueFunction<void()> interrupted_;
  UniqueFunction<void()> invalidated_;

  std::mutex mutex_;
  std::optional<std::string> remoteFailure_;
  std::vector<std::pair<size_t, Array>> remoteCalls_;
};

}  // namespace zun
