#pragma once

// Sessions of one token, with the real agent: who is whose parent, whom a change reaches,
// and whose client gets the copies.

#include "HierarchyTest.h"

namespace zun {

class SessionHierarchyTest : public HierarchyTest {
 protected:
  int countDebug(const std::string& line) { return platform_.log.count(LogLevel::kDebug, line); }
  static std::string updating(int number) {
    return "updateDownstreamSessions: Updating combined session ID and syncing reporting states for "
           "session " +
           std::to_string(number);
  }
};

}  // namespace zun
