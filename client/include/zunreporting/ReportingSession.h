#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zunreporting/PropertyValue.h"

namespace zunreporting {

/// What a call gave: a value, or the reason why there is none.
template <typename T>
struct [[nodiscard]] Outcome {
  std::optional<T> value;
  std::string error;  // empty on success

  explicit operator bool() const { return value.has_value(); }
};

struct Nothing {};

/// Who reports, and how. See Keys.h for what each becomes.
struct SessionInfo {
  uint32_t sessionID = 0;
  int32_t clientType = 0;
  uint16_t clientVersion = 0;
  std::optional<bool> requireUserInfo;  // none: the daemon takes it as required
  bool batchEvents = false;
  std::string hierarchyToken;  // empty: a standalone session
  int32_t hierarchyLevel = 0;
};

struct UserInfo {
  std::string clientName;
  std::string serviceName;
};

struct Event {
  uint16_t category = 0;
  uint16_t type = 0;
  std::optional<PropertyDictionary> payload;
  uint32_t flag = 0;
};

/// One reporting session: one connection to the daemon.
///
///   connect ──▶ setSessionInfo ──▶ startConfig ──▶ sendMessage ... flushMessages ──▶ finishSessionGracefully
///
/// The session ends with the object. Every call waits for its answer.
/// Threading: one thread at a time.
class ReportingSession final {
 public:
  static constexpr const char* kDefaultAddress = "unix:path=/run/zunreportingd/com.vantix.zunreportingd";

  /// Connects; the error is that no daemon is there. One that does not serve this process
  /// hangs up, which the first call tells.
  static Outcome<std::unique_ptr<ReportingSession>> connect(const std::string& address = kDefaultAddress);
  ~ReportingSession();
  ReportingSession(const ReportingSession&) = delete;
  ReportingSession& operator=(const ReportingSession&) = delete;

  Outcome<Nothing> setSessionInfo(const SessionInfo& info, const std::optional<UserInfo>& user);
  /// Names of the active backends; a none inside means that the daemon has no storebag
  /// for the client type. May take as long as fetching one.
  Outcome<std::optional<std::vector<std::string>>> startConfig();
  Outcome<std::optional<std::vector<std::string>>> fetchStates(const std::optional<UserInfo>& user);
  Outcome<std::string> fetchDisplayURL();
  /// What was sent, where a backend tells.
  Outcome<std::optional<std::string>> sendMessage(const Event& event);
  /// The text of what was flushed; an error when a backend could not. May take as long
  /// as the post.
  Outcome<std::optional<std::string>> flushMessages();
  Outcome<Nothing> finishSessionGracefully();

 private:
  struct Implementation;
  explicit ReportingSession(std::unique_ptr<Implementation> implementation);
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace zunreporting
