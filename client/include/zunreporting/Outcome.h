#pragma once

#include <optional>
#include <string>

namespace zunreporting {

/// Why a call gave no value; what a caller may branch on.
enum class Failure {
  kNone,
  kArgument,    // never sent: an argument cannot be, such as text that is no UTF-8 or a file that cannot be
                // opened
  kConnection,  // the connection is gone, and with it the session: every further call fails the same way
  kAnswer,      // the daemon answered with an error, with something else than an answer, or not in time
};

/// What a call gave: a value, or the reason why there is none.
template <typename T>
struct [[nodiscard]] Outcome {
  std::optional<T> value;
  std::string error;  // for people; empty on success
  Failure failure = Failure::kNone;

  explicit operator bool() const { return value.has_value(); }
};

template <typename T>
Outcome<T> failed(Failure failure, std::string error) {
  return {std::nullopt, std::move(error), failure};
}

struct Nothing {};

}  // namespace zunreporting
