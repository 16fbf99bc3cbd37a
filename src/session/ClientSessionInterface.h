#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ServiceConnection.h"
#include "platform/UniqueFunction.h"
#include "values/Error.h"
#include "values/Value.h"

namespace zun {

/// What a client process must be entitled to.
inline constexpr std::string_view kClientEntitlement = "com.vantix.private.zunreportingd";

/// What a client may ask of its session.
///
/// Threading: one call at a time, on the connection's thread. A completion is called at
/// most once, at the end of its operation, if it was given; that of a flush may come
/// later and on any thread, or be let go without a call when its posts were dropped.
///
/// What describes the session is bounded. Beyond, an operation gives a refusal, does nothing,
/// and lets its completion go.
class ClientSessionInterface {
 public:
  /// The D-Bus error that an operation is answered with.
  struct Refusal {
    std::string_view errorName;
    std::string text;
  };

  /// Names of the backends that report, in storebag order; none without backends.
  using StatesReply = UniqueFunction<void(const std::optional<std::vector<std::string>>& activeBackends)>;
  using StringReply = UniqueFunction<void(const std::string& text)>;
  using ResponseReply = UniqueFunction<void(const std::optional<std::string>& response)>;
  using FlushReply =
      UniqueFunction<void(const std::optional<std::string>& result, const std::optional<Error>& error)>;
  using UploadFileReply = UniqueFunction<void(bool succeeded)>;
  using UploadLogReply = UniqueFunction<void(bool succeeded, const std::optional<Error>& error)>;

  virtual ~ClientSessionInterface() = default;

  /// Why the client may not say this of itself, for logs and the client; none where it may.
  /// Asked before each operation that takes one of them; without a new session information
  /// the one that holds is judged.
  [[nodiscard]] virtual std::optional<std::string> refusalOfClaims(
      const std::optional<Dictionary>& newSessionInfo, const std::optional<Dictionary>& newUserInfo) = 0;

  /// Says who the client is and for whom it reports. Replaces what was said before.
  virtual std::optional<Refusal> setSessionInfo(const Dictionary& sessionInfo,
                                                const std::optional<Dictionary>& userInfo,
                                                const Array& frameworksToCheck, bool hasAggregationBlock) = 0;

  /// Builds the backends from the client type's storebag and starts to report. Blocks
  /// on the network while no fresh storebag is at hand.
  virtual void startConfigWithCompletionHandler(StatesReply completionHandler) = 0;

  /// Replaces the user information.
  virtual std::optional<Refusal> fetchStatesWithUserInfo(const std::optional<Dictionary>& userInfo,
                                                         StatesReply completionHandler) = 0;

  /// Where the client may show its reports, or "URL not available".
  virtual void fetchDisplayURL(StringReply reply) = 0;

  /// Reports one event. The response is the text of what was sent, where there is one.
  virtual void sendMessageWithDictionary(const Dictionary& message, ResponseReply reply) = 0;

  /// Posts what waits. Answered at the first backend's failure, else after the last one.
  virtual void flushMessagesWithCompletion(FlushReply completion) = 0;

  /// The session's end, when it comes, is meant.
  virtual void finishSessionGracefully() = 0;

  /// Uploads a file that the client opened and had a token issued for. True once that has
  /// been attempted. Blocks until the server has answered.
  virtual void uploadFileAtPath(const std::string& fileURL, const std::string& extensionToken,
                                UploadFileReply completionHandler) = 0;

  /// Uploads log records. True when a server took them; the error stays empty. Blocks
  /// likewise.
  virtual void uploadLogData(const Array& logData, UploadLogReply completionHandler) = 0;

  /// Reports one event of a session that is described here and now. The status is
  /// "finished" or why not.
  virtual std::optional<Refusal> sendMessageWithSessionInfo(const Dictionary& sessionInfo,
                                                            const std::optional<Dictionary>& userInfo,
                                                            uint16_t category, uint16_t type,
                                                            const std::optional<Dictionary>& payload,
                                                            StringReply reply) = 0;

  /// Merges values into what the sessions of one hierarchy share.
  virtual void updateSharedDataWithDictionary(const Dictionary& sharedData) = 0;
  /// None removes the key.
  virtual void updateSharedDataForKey(const std::string& key, const Value& value) = 0;

  /// Key material for backends that sign what they post; `key` is raw bytes.
  virtual std::optional<Refusal> setDigestKey(const std::string& key, int32_t algorithm) = 0;
};

/// The interface that clients call, at its object path.
[[nodiscard]] const ServiceInterface& clientSessionInterface();

}  // namespace zun
