#pragma once

#include <list>
#include <map>
#include <optional>
#include <string>

#include "platform/SystemLog.h"
#include "values/Value.h"

namespace zun {

/// The values that the sessions of one hierarchy token share.
///
/// They outlive the sessions, so what tokens without sessions keep is bounded: beyond
/// the bound, the token that has been without sessions longest is given up.
/// Threading: under the agent's lock.
class SharedSessionData final {
 public:
  /// More than this, by an estimate of its entries' memory, one token does not keep.
  static constexpr int64_t kMaximumBytesPerToken = int64_t{1} << 20;
  /// What all tokens without sessions together may keep.
  static constexpr int64_t kMaximumIdleBytes = int64_t{32} << 20;

  explicit SharedSessionData(SystemLog& log);

  /// Adds all entries; a key already there takes the new value. An update that would
  /// grow the token's values past the bound is an error line and changes nothing.
  void update(const std::string& token, const Dictionary& sharedData);
  void remove(const std::string& token, const std::string& key);
  [[nodiscard]] std::optional<Dictionary> forToken(const std::string& token) const;

  /// The token's last session has left. Gives the tokens to be given up for it.
  [[nodiscard]] std::list<std::string> tokenBecameIdle(const std::string& token);
  /// The token has a session again.
  void tokenBecameBusy(const std::string& token);
  void removeToken(const std::string& token);

 private:
  [[nodiscard]] int64_t bytesKeptFor(const std::string& token) const;

  /// Values and their estimated size, kept up entry by entry: an update must not cost
  /// what all that is there does.
  struct TokenValues {
    [[nodiscard]] int64_t growthBy(const Dictionary& update) const;

    Dictionary values;
    int64_t entryBytes = 0;
  };
  struct IdleToken {
    std::list<std::string>::iterator place;
    int64_t bytes = 0;
  };

  SystemLog& log_;
  std::map<std::string, TokenValues, std::less<>> sharedData_;
  std::list<std::string> idleOrder_;  // the longest idle first
  std::map<std::string, IdleToken, std::less<>> idle_;
  int64_t idleBytes_ = 0;
};

}  // namespace zun
