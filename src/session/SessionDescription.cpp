#include "session/SessionDescription.h"

#include "util/MemoryUse.h"

namespace zun {

size_t SessionDescription::allocatedBytes() const {
  return zun::allocatedBytes(sessionInfo) + (userInfo ? zun::allocatedBytes(*userInfo) : 0) +
         zun::allocatedBytes(frameworks) + (digestKey ? digestKey->size() : 0);
}

}  // namespace zun
