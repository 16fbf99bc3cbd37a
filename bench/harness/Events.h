#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "values/Value.h"

namespace zun::bench {

/// What apps might report, the same in every run and varied as real records are: texts of
/// random words, numbers, a boolean, a choice. Records that are alike would flatter gzip.
class Events final {
 public:
  static constexpr size_t kKeys = 8;

  /// `keys` entries in each payload.
  explicit Events(size_t keys = kKeys);

  /// Bytes of a call that reports the event; its serial is 1. Numbers beyond the distinct
  /// events begin again.
  [[nodiscard]] const std::string& call(uint64_t number) const { return calls_[number % calls_.size()]; }
  [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }
  [[nodiscard]] const Dictionary& payload(uint64_t number) const {
    return payloads_[number % payloads_.size()];
  }

 private:
  std::vector<Dictionary> payloads_;
  std::vector<std::string> calls_;
};

/// Bytes of a call of the session's object; its serial is 1.
[[nodiscard]] std::string sessionCall(std::string_view member, std::string_view signature,
                                      const Array& arguments);

}  // namespace zun::bench
