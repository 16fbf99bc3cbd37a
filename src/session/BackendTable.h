#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backends/ZunReportingBackend.h"

namespace zun {

/// What a backend's response to a message means to the client that sent it.
enum class ResponseRole {
  kAnswer,    // the last such response is the answer
  kFallback,  // the answer while there is no other
  kIgnored,
};

/// A session's backends by name, in the storebag's order. Never changed once made: a
/// session replaces the whole table, and other threads go on reading the one they have.
struct BackendTable final {
  struct Entry {
    std::string name;
    std::shared_ptr<ZunReportingBackend> backend;
    ResponseRole role;
  };

  [[nodiscard]] ZunReportingBackend* find(std::string_view name) const;
  /// One of them is in state 2.
  [[nodiscard]] bool isAnyEnabled() const;

  std::vector<Entry> entries;
};

/// Makes the backend that a storebag names, or none.
using BackendFactory = std::function<std::shared_ptr<ZunReportingBackend>(
    const ReportingServices& services, std::string_view name, const Value& profile,
    const std::optional<std::string>& productFamily, int32_t clientType)>;

/// Whom new backends report for. A null storebag or session information is refused.
struct BackendCreationOptions {
  const Dictionary* storebag = nullptr;
  const Dictionary* sessionInfo = nullptr;
  std::optional<Dictionary> userInfo = {};
  std::string deviceIdentifier = {};
  std::shared_ptr<BackendObserver> observer = {};
};

/// The backends that a storebag names (possibly no one), told what they need to know;
/// null, after an error line, without a storebag or session information.
[[nodiscard]] std::shared_ptr<const BackendTable> createBackends(const ReportingServices& services,
                                                                 const BackendFactory& factory,
                                                                 const BackendCreationOptions& options);

}  // namespace zun
