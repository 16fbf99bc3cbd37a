#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/ServiceConnection.h"
#include "platform/Value.h"
#include "session/ReportingdSessionDelegate.h"
#include "util/ReportingServices.h"

namespace zun {

/// The daemon's side of one client's reporting session.
///
///   created ──setSessionInfo──▶ configured ──startConfig, storebag there──▶ started
///      └───────────────┴──────── last reference dropped ───────────────────────┘
///                                          ▼
///             torn down: end message, flush, helper and keep-alive reference handed back
///
/// Threading: the client's calls come one at a time on its connection's thread; what
/// the agent and other sessions read is listed as "any thread".
/// Ownership: the agent's session list and the connection hold it. Teardown runs once,
/// on the thread that drops the last reference, never under the agent's lock.
class ReportingdSession final : public std::enable_shared_from_this<ReportingdSession> {
 public:
  /// `initWithSessionDelegate:connection:`.
  static std::shared_ptr<ReportingdSession> create(const ReportingServices& services,
                                                   std::shared_ptr<ReportingdSessionDelegate> delegate,
                                                   std::shared_ptr<ServiceConnection> connection);

  // Any thread.
  [[nodiscard]] uint32_t sessionID() const;
  [[nodiscard]] const std::string& sessionIDString() const;
  [[nodiscard]] Dictionary sessionInfo() const;
  [[nodiscard]] std::optional<Dictionary> userInfo() const;
  [[nodiscard]] uint32_t hierarchyLevel() const;
  [[nodiscard]] std::optional<std::string> hierarchyToken() const;
  /// One line for logs.
  [[nodiscard]] std::string description() const;

  // The agent's calls, from any session's thread, some under the agent's lock.
  void updateCombinedSessionID();
  void syncReportingStates();

  // (client operations of ClientSessionInterface and private state: added with the
  // implementation.)
};

/// The interface that clients call, at its object path.
[[nodiscard]] const ServiceInterface& clientSessionInterface();
/// The interface that clients export.
[[nodiscard]] const ServiceInterface& clientSessionReplyInterface();
/// The object that turns a connection's calls into the session's operations.
[[nodiscard]] std::shared_ptr<ExportedObject> makeClientSessionObject(
    std::shared_ptr<ReportingdSession> session);

}  // namespace zun
