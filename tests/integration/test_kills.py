"""A daemon that is killed while it saves storebags, settings and the message log: whatever is there at its next
start is whole."""

import glob
import os
import plistlib
import random
import re
import signal
import sys
import threading
import unittest

from gi.repository import GLib

from failing_calls import KILL, FailingCalls
from harness import DEADLINE, NOTHING_CACHED, ScratchTest, client_entry, wait_until
from reporter import Reporter

ROUNDS = int(os.environ.get("ZUN_KILLS", "200"))
# Calls that a save consists of. The write is killed with half of its bytes written.
CALLS_OF_A_SAVE = {"mkostemp": 4, "fchmod": 3, "write": 30, "fsync": 6, "close": 40, "rename": 4, "open": 40,
                   "utimensat": 2, "flock": 4, "unlink": 1, "mkdir": 60}
SESSIONS = 3
LONGEST = 0.15  # seconds, about what they take
ENTRY = re.compile(rb"\(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \S+\) \[")
ENTRY_ON_ITS_LINE = re.compile(b"^" + ENTRY.pattern, re.M)


class KillsTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.seed = int(os.environ.get("ZUN_SEED", random.SystemRandom().randrange(1 << 32)))
        self.random = random.Random(self.seed)
        print(f"ZUN_SEED={self.seed}", file=sys.stderr)
        self.calls = FailingCalls(self.scratch.path("failing-calls"))
        self.scratch.set_defaults("com.vantix.diagnostics", {"DiagnosticSubmissionEnabled": True})
        self.envelopes = [self.envelope(version) for version in range(2)]
        self.served = 0
        self.scratch.server.behaviour["/confero"] = self.serve
        self.interrupted = {"storebags": 0, "Preferences": 0}
        self.cut_lines = 0

    def envelope(self, version):
        """A storebag of some pages of text."""
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(override_dnu=None)]}},
                             version=str(version), serial=1, text=str(version) * 20_000)
        return self.scratch.server.files["/confero"]

    def serve(self, handler):
        """Another storebag each time, and one to be fetched anew for each session."""
        self.served += 1
        handler.answer(200, self.envelopes[self.served % 2],
                       [("Cache-Control", "max-age=0"), ("Last-Modified", f"version {self.served}")])

    # --- What is killed

    def report_until_killed(self):
        daemon = self.scratch.daemon.process
        for number in range(SESSIONS):
            try:
                with Reporter(self.scratch, number, name=f"client {self.served}") as reporter:
                    reporter.start()
                    for event in range(2):
                        reporter.send(event)
                self.wait_for_saves(number + 1)
            except GLib.Error:
                daemon.wait(DEADLINE)  # it has been killed
                return
        daemon.kill()  # the call that was chosen did not come

    def wait_for_saves(self, count):
        """A file that is due is refreshed after the session has been served from it."""
        daemon = self.scratch.daemon
        wait_until(lambda: daemon.has_line("(end of log)") or
                   sum("has been saved to disk cache" in line for line in list(daemon.lines)) >= count, "a save")

    def killed_from_within(self):
        function = self.random.choice(list(CALLS_OF_A_SAVE))
        self.calls.plan(function, KILL, self.random.randrange(CALLS_OF_A_SAVE[function]) + 1)

    def killed_from_outside(self):
        return threading.Timer(self.random.uniform(0, LONGEST), self.scratch.daemon.process.kill)

    def kill_once(self, number):
        self.calls.plan("")
        self.scratch.start(level="default", environment=self.calls.environment)
        if number % 2 == 0:
            self.killed_from_within()
            self.report_until_killed()
        else:
            timer = self.killed_from_outside()
            timer.start()
            self.report_until_killed()
            timer.join()
        self.assertEqual(self.scratch.daemon.wait(), -signal.SIGKILL)
        for line in self.scratch.daemon.errors():
            self.assertIn(NOTHING_CACHED, line)

    # --- What is left

    def all_is_whole(self):
        home = self.scratch.path("root/home/tester/Library")
        for path in glob.glob(home + "/Caches/zunreportingd/storebags/*"):
            with open(path, "rb") as file:
                self.assertIn(file.read(), self.envelopes, path)
        for path in glob.glob(home + "/Preferences/*.plist"):
            with open(path, "rb") as file:
                self.assertIsInstance(plistlib.load(file), dict, path)
        self.assertEqual(glob.glob(home + "/Preferences/*.corrupt"), [])
        for folder in self.interrupted:
            self.interrupted[folder] += len(self.leftovers(folder))
        for path in self.leftovers("Preferences"):
            os.utime(path, (0, 0))  # so old that nobody can be writing it: gone with the next start

    def leftovers(self, folder):
        parent = "Caches/zunreportingd/" if folder == "storebags" else ""
        return glob.glob(self.scratch.path(f"root/home/tester/Library/{parent}{folder}/.zun-*"))

    def entries_are_whole(self):
        """A kill cuts the last entry at most: each begins a line."""
        for path in glob.glob(self.scratch.path("root/var/mobile/Library/Logs/Quellar/Retired/*")):
            with open(path, "rb") as file:
                text = file.read()
            self.assertEqual(len(ENTRY.findall(text)), len(ENTRY_ON_ITS_LINE.findall(text)), path)
            self.cut_lines += not text.endswith(b"\n")

    def test_whatever_is_killed_the_next_start_finds_whole_files(self):
        for number in range(ROUNDS):
            self.kill_once(number)
            self.all_is_whole()
            self.entries_are_whole()
        print(f"{ROUNDS} kills: {self.interrupted} saves left unfinished, {self.cut_lines} times a line", file=sys.stderr)
        self.assertTrue(all(self.interrupted.values()), "no save was interrupted")
        self.scratch.start()
        for folder in self.interrupted:
            self.assertEqual(self.leftovers(folder), [])
        self.assertEqual(self.scratch.send([{"category": 2, "type": 7}]).returncode, 0)


if __name__ == "__main__":
    unittest.main()
