#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "values/Value.h"

namespace zun {

/// One attempt to get a client type's storebag.
struct StorebagFetchOutcome {
  std::optional<Dictionary> section;   // of the current environment; none on failure
  uint32_t maxAgeSeconds = 0;          // how long the section may be served
  std::optional<std::string> version;  // none where the storebag has none
  bool unchanged = false;              // the server has nothing newer than what was last loaded
  std::optional<Date> fileDate = {};   // of the disk cache's file that the attempt saw; none without one
};

/// Gets storebags. The seam between the agent's cache and what fetches.
class StorebagFetcher {
 public:
  virtual ~StorebagFetcher() = default;

  /// Blocks until the attempt has ended; on the network when nothing is cached on disk.
  /// Never call it on a queue that serves clients. Any thread, several at once.
  [[nodiscard]] virtual StorebagFetchOutcome fetchStorebagForEnvironmentAndClientType(int32_t clientType) = 0;

  /// To be told once the outcome has been noted with its time. What has been saved in the
  /// meantime is newer than the note, and is to look so.
  virtual void outcomeNoted(std::string_view name, const StorebagFetchOutcome& outcome) = 0;

  /// From now on nothing is asked of a network, and what is under way fails: the process is
  /// about to end. Does not wait.
  virtual void cancelFetches() = 0;

  /// When the disk cache's file of `name` was last written, or none without a file.
  [[nodiscard]] virtual std::optional<Date> modificationDateOfStorebagFile(std::string_view name) const = 0;
};

}  // namespace zun
