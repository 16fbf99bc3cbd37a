#pragma once

#include <cstdio>
#include <cstdlib>

/// What must hold for every input; where it does not, the fuzzer has found something.
inline void check(bool isAsItShouldBe, const char* what) {
  if (isAsItShouldBe) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}
