#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "values/Value.h"

namespace zun {

/// What is wrong with a storebag, and where.
struct StorebagFinding {
  enum class Severity { kWarning, kError };

  Severity severity;
  std::string where;  // "release.httpPost.clients[0].post_url"
  std::string text;
};

/// Looks at an inner storebag as the daemon will: a storebag with an error is of no use
/// to any daemon, a warning is something that it silently reads otherwise than it is
/// written, or that keeps a client from reporting.
[[nodiscard]] std::vector<StorebagFinding> checkStorebag(const Value& storebag);

/// True for a name that some client type's storebag has.
[[nodiscard]] bool isStorebagName(std::string_view name);

}  // namespace zun
