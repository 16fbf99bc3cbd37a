"""The library of tests/preload/failing_calls.c, from the side of the test."""

import mmap
import struct
import unittest

from harness import BINARIES, binary

KILL, HOLD = -1, -2
PLAN = struct.Struct("=32siiqqq")  # function, failure, times, first, calls, failed


def preloaded(library):
    """Its path. Skips the test in builds whose sanitizer has to come before any other library."""
    with open(binary("zunreportingd"), "rb") as program:
        code = program.read()
    if b"__asan_init" in code or b"__tsan_init" in code:
        raise unittest.SkipTest("a sanitizer's library has to come first")
    return str(next(BINARIES.rglob(library + ".so")))


class FailingCalls:
    """A plan of which calls of a daemon's fail; `environment` is for the daemon's start."""

    def __init__(self, path):
        with open(path, "w+b") as file:
            file.truncate(PLAN.size)
            self.memory = mmap.mmap(file.fileno(), PLAN.size)
        self.environment = {"LD_PRELOAD": preloaded("failing_calls"), "ZUN_FAILING_CALLS": str(path)}

    def plan(self, function, failure=0, first=0, times=1):
        """The `first`th call of `function` from now on fails, and as many as `times` in all; 0 for none."""
        self.memory[:] = PLAN.pack(b"", 0, 0, 0, 0, 0)
        self.memory[:] = PLAN.pack(function.encode(), failure, times, first, 0, 0)

    @property
    def calls(self):
        return PLAN.unpack(self.memory)[4]

    @property
    def failed(self):
        return PLAN.unpack(self.memory)[5]
