#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zunreporting/AggregatedMessage.h"
#include "zunreporting/Outcome.h"
#include "zunreporting/PropertyValue.h"

namespace zunreporting {

/// Who reports, and how. See Keys.h for what each becomes.
struct SessionInfo {
  uint32_t sessionID = 0;
  int32_t clientType = 0;
  uint16_t clientVersion = 0;
  bool requireUserInfo = true;  // events wait for it; false only where there is none
  bool batchEvents = false;
  std::string hierarchyToken = {};  // empty: a standalone session
  int32_t hierarchyLevel = 0;       // 0 for the top
};

struct UserInfo {
  std::string clientName;
  std::string serviceName;
};

struct Event {
  uint16_t category = 0;
  uint16_t type = 0;
  std::optional<PropertyDictionary> payload = {};
  uint32_t flag = 0;
};

class Connection;

/// One reporting session: one connection to the daemon.
///
///   connect ──▶ setSessionInfo ──▶ startConfig ──▶ sendMessage ... flushMessages ──▶ finishSessionGracefully
///
/// The session ends with the object, or when the daemon goes away; a lost connection does
/// not come back: make another session.
///
/// Blocking: every call waits for the daemon's answer, a minute at most where nothing
/// else is said, three where the daemon itself waits for a server.
/// Threading: one thread at a time. No thread is started; messages to this process are
/// handled in processMessages alone.
/// Errors: nothing throws but for want of memory; an Outcome tells the kind to branch on
/// and a text for the log. Text with a NUL in it, or that is no UTF-8, is refused before
/// it is sent. What the daemon sends in error is dropped or told, never trusted.
class ReportingSession final {
 public:
  static constexpr const char* kDefaultAddress = "unix:path=/run/zunreportingd/com.vantix.zunreportingd";

  /// Connects; the error is that no daemon is there. One that does not serve this process
  /// hangs up, which the first call tells.
  static Outcome<std::unique_ptr<ReportingSession>> connect(const std::string& address = kDefaultAddress);
  ~ReportingSession();
  ReportingSession(const ReportingSession&) = delete;
  ReportingSession& operator=(const ReportingSession&) = delete;

  /// Says who reports. With `aggregation` the session is an aggregator: the messages of
  /// its own and of the sessions below it come back, and processMessages hands them to
  /// that function. `frameworksToCheck` is kept by the daemon for the session.
  Outcome<Nothing> setSessionInfo(const SessionInfo& info, const std::optional<UserInfo>& user,
                                  AggregationHandler aggregation = {},
                                  const std::vector<std::string>& frameworksToCheck = {});
  /// Names of the active backends; a none inside means that the daemon has no storebag
  /// for the client type. May take as long as fetching one.
  Outcome<std::optional<std::vector<std::string>>> startConfig();
  /// Replaces the user information. Names of the backends that are active then.
  Outcome<std::optional<std::vector<std::string>>> fetchStates(const std::optional<UserInfo>& user);
  /// Where what is reported can be looked at, or "URL not available".
  Outcome<std::string> fetchDisplayURL();

  /// What was sent, where a backend tells.
  Outcome<std::optional<std::string>> sendMessage(const Event& event);
  /// Reports one event as the session that `info` and `user` describe, which this session
  /// becomes. Needs neither setSessionInfo nor startConfig; the event's flag does not
  /// count. The daemon's status: "finished", whatever the backends did, or what was
  /// missing. May take as long as fetching a storebag.
  Outcome<std::string> sendMessageWithSessionInfo(const SessionInfo& info,
                                                  const std::optional<UserInfo>& user, const Event& event);
  /// The text of what was flushed; an error when a backend could not. May take as long
  /// as the post.
  Outcome<std::optional<std::string>> flushMessages();
  /// Marks the end that follows as wanted.
  Outcome<Nothing> finishSessionGracefully();

  /// Has the file at `path` uploaded, compressed, through a descriptor that this process
  /// opens. True: a backend has attempted it. Only the file tells more: it is removed
  /// once the server has confirmed it. False: no backend could, or the file is empty.
  /// `path` may be relative; a symbolic link or anything but a regular file is refused.
  /// Waits until the upload has ended, a day at most.
  Outcome<bool> uploadFile(const std::string& path);
  /// Has records uploaded in one archive. True when a server has taken it. One call takes
  /// what one message holds, 1 MiB. Waits until the upload has ended.
  Outcome<bool> uploadLogData(const PropertyArray& records);

  /// Entries that all sessions with this one's hierarchy token share and that accompany
  /// their messages. Without a token nothing happens.
  Outcome<Nothing> updateSharedData(const PropertyDictionary& entries);
  /// The same for one entry; none removes it.
  Outcome<Nothing> updateSharedDataForKey(const std::string& key, const std::optional<PropertyValue>& value);
  /// Key and algorithm of the digests that some backends add to their posts.
  Outcome<Nothing> setDigestKey(std::string_view key, int32_t algorithm);

  /// Hands what the daemon has sent to the function that setSessionInfo was given, on
  /// this thread, and gives how many messages that were. Waits up to `timeout` for the
  /// first; none waits until there is one. The function may make calls, but neither set
  /// the session's information, process messages nor end the session; what it throws
  /// comes out here, and the next call goes on behind that message. Fails when the
  /// connection is gone.
  ///
  /// A process that does not come here often enough loses messages: the daemon keeps a
  /// bounded number for it.
  Outcome<size_t> processMessages(std::optional<std::chrono::milliseconds> timeout);
  /// Readable when messages may have come; for poll and event loops. Calls take in what
  /// comes while they wait, so process messages with a timeout of zero before waiting.
  [[nodiscard]] int descriptor() const;

 private:
  explicit ReportingSession(std::unique_ptr<Connection> connection);

  std::unique_ptr<Connection> connection_;
  AggregationHandler aggregation_;
};

}  // namespace zunreporting
