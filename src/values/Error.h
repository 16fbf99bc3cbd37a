#pragma once

#include <cstdint>
#include <string>

namespace zun {

/// What went wrong, in a form that can be branched on (domain, code) and one that
/// can be logged (description).
struct Error {
  std::string domain;
  int32_t code = 0;
  std::string description;

  friend bool operator==(const Error&, const Error&) = default;
};

/// Domain of errors that the operating system numbers; the code is an errno.
inline constexpr const char* kPOSIXErrorDomain = "POSIX";

/// Domain of the URL session's own errors; the codes are URLSessionError's.
inline constexpr const char* kURLErrorDomain = "URLSession";

}  // namespace zun
