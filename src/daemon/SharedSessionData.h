#pragma once

#include <cstdint>
#include <string>

#include "platform/SystemLog.h"
#include "values/Value.h"

namespace zun {

/// The values that the sessions of one hierarchy token share, and their estimated size,
/// which is kept up entry by entry: an update must not cost what all that is there does.
///
/// Threading: under the agent's lock.
class SharedSessionData final {
 public:
  /// More than this, by an estimate of the entries' memory, is not kept.
  static constexpr int64_t kMaximumBytes = int64_t{1} << 20;

  /// Adds all entries; a key already there takes the new value. An update that would
  /// grow the values past the bound is an error line, which names `token`, and changes nothing:
  /// false.
  [[nodiscard]] bool update(const Dictionary& sharedData, const std::string& token, SystemLog& log);
  void remove(const std::string& key);

  [[nodiscard]] const Dictionary& values() const { return values_; }
  /// Estimated bytes of all that is kept.
  [[nodiscard]] int64_t bytes() const;

 private:
  [[nodiscard]] int64_t growthBy(const Dictionary& update) const;

  Dictionary values_;
  int64_t entryBytes_ = 0;
};

}  // namespace zun
