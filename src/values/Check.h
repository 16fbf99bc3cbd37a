#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the process when the program itself is wrong. Never for input: whatever a
/// client, a server or a disk hands us is answered, not asserted.
#define ZUN_CHECK(condition)                                                             \
  do {                                                                                   \
    if (!(condition)) [[unlikely]] {                                                     \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

#ifdef NDEBUG
#define ZUN_ASSERT(condition) ((void)0)
#else
#define ZUN_ASSERT(condition) ZUN_CHECK(condition)
#endif

/// In debug builds: this code runs on `queue` (a SerialQueue).
#define ZUN_ASSERT_ON_QUEUE(queue) ZUN_ASSERT((queue).isCurrent())
