#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/PlatformServices.h"
#include "platform/URLSession.h"
#include "util/DeviceIdentity.h"

namespace zun {

/// Verified storebag envelopes on disk, one file per storebag name, and in the user
/// defaults what the server said about the freshness of each. Outlives the process; a
/// newer download replaces a file, nothing deletes one.
///
/// Threading: any thread; what reads or writes both file and freshness is serialised by
/// the fetcher's lock, under which nothing here waits but what reads. Ownership: part of a
/// fetcher; the services outlive it.
class StorebagDiskCache final {
 public:
  static constexpr std::string_view kDaemonFolder = "~/Library/Caches/zunreportingd";
  static constexpr std::string_view kFolder = "~/Library/Caches/zunreportingd/storebags";

  /// How long a storebag is fresh whose server does not say, in seconds.
  static constexpr int32_t kDefaultMaxAge = 86400;
  /// No storebag is larger, on the wire or on disk.
  static constexpr uint64_t kMaximumBytes = uint64_t{16} << 20;

  StorebagDiskCache(const PlatformServices& platform, const DeviceIdentity& identity);

  /// Path of a storebag's file. Makes its folder where that is missing.
  [[nodiscard]] std::string fileLocation(std::string_view name) const;

  /// The envelope as the server sent it; none without a readable file, after an error
  /// line.
  [[nodiscard]] std::optional<std::string> loadStorebagFromDisk(std::string_view name) const;

  /// Removes what a killed process was writing. At the start: what is being written goes too.
  void removeLeftovers() const;

  using StagedEnvelope = Result<std::unique_ptr<StagedFile>, Error>;

  /// Writes an envelope, to be saved or dropped. Waits for the disk.
  [[nodiscard]] StagedEnvelope stageEnvelope(std::string_view name, std::string_view envelope) const;
  /// Puts the envelope in its place, dated now. True when written; false after an error line.
  bool saveStorebagToDisk(std::string_view name, const StagedEnvelope& envelope) const;

  /// None without a file.
  [[nodiscard]] std::optional<Date> modificationDateOfStorebagFile(std::string_view name) const;
  /// Dates the file later than everything that has been dated until now.
  void dateStorebagFileLater(std::string_view name) const;

  /// What the server said last; every output may be null. `maxAge` is 0 when nothing is
  /// stored. A stored Last-Modified that equals `*lastModified` sets `*unchanged`;
  /// another one replaces `*lastModified`.
  void getLastLoadedStorebagMetricsWithName(std::string_view name, uint32_t* maxAge, bool* unchanged,
                                            std::optional<std::string>* lastModified) const;

  /// An answer's max-age and Last-Modified, as they are about to be kept.
  struct StagedMetrics {
    int32_t maxAge = kDefaultMaxAge;
    std::optional<std::string> lastModified = {};
    std::unique_ptr<StagedDefaults> change = {};
  };

  /// Waits for other writers of the user defaults, and for the disk.
  [[nodiscard]] StagedMetrics stageMetrics(std::string_view name, const URLResponse& response) const;
  /// Keeps both, at once.
  void saveLastLoadedStorebagMetricsWithName(std::string_view name, const StagedMetrics& metrics) const;

  /// Makes the item at `path` accessible to the daemon at all times. Logs a failure.
  void setStorageClassProtectionLevel(const std::string& path) const;

 private:
  /// To the next whole second where the file system keeps no parts of one.
  void dateFile(const std::string& path, Date date) const;

  const PlatformServices& platform_;
  const DeviceIdentity& identity_;
};

}  // namespace zun
