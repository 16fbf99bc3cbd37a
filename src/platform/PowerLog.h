#pragma once

#include <cstdint>
#include <string_view>

#include "values/Value.h"

namespace zun {

/// The platform's log of what bears on the use of power. One that is slow or gone never
/// fails the caller, nor holds it up for more than a moment. Any thread.
class PowerLog {
 public:
  virtual ~PowerLog() = default;

  /// Writes one event of the given category under the sender's name.
  virtual void writeEvent(uint32_t category, std::string_view sender, const Dictionary& event) = 0;
};

}  // namespace zun
