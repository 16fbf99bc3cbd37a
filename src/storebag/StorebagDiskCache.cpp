#include "storebag/StorebagDiskCache.h"

#include <cmath>

#include "platform/TemporaryFiles.h"

namespace zun {

namespace {

constexpr double kMicrosecond = 1e-6;  // the clock's step

std::string metricKey(std::string_view name, std::string_view field) {
  return fmt::format("CACHED_{}_{}", name, field);
}

// The part after the first part "max-age", where "=" and blanks divide the parts.
std::optional<std::string_view> maxAgePart(std::string_view cacheControl) {
  constexpr std::string_view kDividers = "= ";
  bool isNext = false;
  while (true) {
    const size_t end = cacheControl.find_first_of(kDividers);
    const std::string_view part = cacheControl.substr(0, end);
    if (isNext) return part;
    isNext = part == "max-age";
    if (end == std::string_view::npos) return std::nullopt;
    cacheControl.remove_prefix(end + 1);
  }
}

}  // namespace

StorebagDiskCache::StorebagDiskCache(const PlatformServices& platform, const DeviceIdentity& identity)
    : platform_(platform), identity_(identity) {}

std::string StorebagDiskCache::fileLocation(std::string_view name) const {
  const std::string folder = platform_.files.resolve(kFolder);
  platform_.files.createDirectories(folder);
  return fmt::format("{}/{}", folder, name);
}

std::optional<std::string> StorebagDiskCache::loadStorebagFromDisk(std::string_view name) const {
  const std::string path = fileLocation(name);
  if (identity_.isInternalBuild()) {
    setStorageClassProtectionLevel(platform_.files.resolve(kDaemonFolder));
    setStorageClassProtectionLevel(platform_.files.resolve(kFolder));
    setStorageClassProtectionLevel(path);
  }
  auto envelope = platform_.files.readFile(path, kMaximumBytes);
  if (!envelope) {
    platform_.log.error("loadStorebagFromDisk: could not load storebag '{}' from file '{}'. Error is '{}'",
                        name, fileURLOfPath(path), envelope.error().description);
    return std::nullopt;
  }
  return std::move(*envelope);
}

void StorebagDiskCache::removeLeftovers() const {
  zun::removeLeftovers(platform_.files, platform_.files.resolve(kFolder));
}

StorebagDiskCache::StagedEnvelope StorebagDiskCache::stageEnvelope(std::string_view name,
                                                                   std::string_view envelope) const {
  // Synced, as the metrics are: they are not to outlive a power cut without the file.
  return platform_.files.stageFile(fileLocation(name), envelope, Durability::kSynced);
}

bool StorebagDiskCache::saveStorebagToDisk(std::string_view name, const StagedEnvelope& envelope) const {
  const std::string path = fileLocation(name);
  if (const auto error = envelope ? (*envelope)->publish() : envelope.error()) {
    platform_.log.error("saveStorebagToDisk: could not save storebag '{}' to file '{}'. Error is '{}'", name,
                        fileURLOfPath(path), error->description);
    const std::string folder = platform_.files.resolve(kFolder);
    const auto reason = platform_.files.createDirectories(folder);
    if (reason && reason->code != error->code) {
      platform_.log.error("saveStorebagToDisk: could not make folder '{}'. Error is '{}'", folder,
                          reason->description);
    }
    return false;
  }
  // Not by the file system's clock, which lags: it is compared with dates of this one.
  dateFile(path, platform_.clock.now());
  return true;
}

std::optional<Date> StorebagDiskCache::modificationDateOfStorebagFile(std::string_view name) const {
  const auto attributes = platform_.files.attributes(fileLocation(name));
  if (!attributes || attributes->isDirectory) return std::nullopt;
  return attributes->modificationDate;
}

void StorebagDiskCache::dateStorebagFileLater(std::string_view name) const {
  dateFile(fileLocation(name), Date{platform_.clock.now().secondsSince1970 + kMicrosecond});
}

void StorebagDiskCache::dateFile(const std::string& path, Date date) const {
  platform_.files.setModificationDate(path, date);
  const auto kept = platform_.files.attributes(path);
  if (!kept || kept->modificationDate.secondsSince1970 > date.secondsSince1970 - kMicrosecond / 2) return;
  platform_.files.setModificationDate(path, Date{std::floor(date.secondsSince1970) + 1});
}

void StorebagDiskCache::getLastLoadedStorebagMetricsWithName(std::string_view name, uint32_t* maxAge,
                                                             bool* unchanged,
                                                             std::optional<std::string>* lastModified) const {
  if (maxAge != nullptr) {
    const Value stored = platform_.defaults.objectForKey(kReportingSuite, metricKey(name, "max-age"));
    *maxAge = static_cast<uint32_t>(stored.int32Value());
    platform_.log.debug("getLastLoadedStorebagMetricsWithName: maxAge is {} for storebag {}",
                        static_cast<int32_t>(*maxAge), name);
  }
  if (lastModified == nullptr) return;
  auto stored = platform_.defaults.stringForKey(kReportingSuite, metricKey(name, "Last-Modified"));
  if (!stored) return;
  if (stored == *lastModified) {
    platform_.log.debug(
        "getLastLoadedStorebagMetricsWithName: 'Last-Modified' has not changed for storebag '{}': '{}'", name,
        *stored);
    if (unchanged != nullptr) *unchanged = true;
    return;
  }
  *lastModified = std::move(stored);
  platform_.log.debug(
      "getLastLoadedStorebagMetricsWithName: 'Last-Modified' has changed to '{}' for storebag '{}'",
      **lastModified, name);
}

StorebagDiskCache::StagedMetrics StorebagDiskCache::stageMetrics(std::string_view name,
                                                                 const URLResponse& response) const {
  StagedMetrics metrics;
  const std::string cacheControl = response.headerList("Cache-Control");
  if (const auto part = maxAgePart(cacheControl)) metrics.maxAge = Value(*part).nearestInt32Value();
  metrics.lastModified = response.header("Last-Modified");
  const std::string maxAgeKey = metricKey(name, "max-age");
  const std::string lastModifiedKey = metricKey(name, "Last-Modified");
  metrics.change = platform_.defaults.stageObjects(
      kReportingSuite, {{maxAgeKey, metrics.maxAge},
                        {lastModifiedKey, metrics.lastModified ? Value(*metrics.lastModified) : Value()}});
  return metrics;
}

void StorebagDiskCache::saveLastLoadedStorebagMetricsWithName(std::string_view name,
                                                              const StagedMetrics& metrics) const {
  if (metrics.change != nullptr) metrics.change->publish();
  platform_.log.debug(
      "saveLastLoadedStorebagMetricsWithName: New storebag '{}' received: maxAge {}, Last-Modified '{}'",
      name, metrics.maxAge, metrics.lastModified.value_or("(null)"));
}

void StorebagDiskCache::setStorageClassProtectionLevel(const std::string& path) const {
  if (const auto error = platform_.files.allowOwnerAccess(path)) {
    const Value attributes = Dictionary{{Value::literal("protectionClass"), Value::literal("none")}};
    platform_.log.error(
        "setStorageClassProtectionLevel: could not set attribute {} to file '{}'. Error is '{}'", attributes,
        path, error->description);
  }
}

}  // namespace zun
