"""Each call of the system's that the daemon makes fails once, in turn, and all of one kind for a whole session: the
daemon goes on, the next client is served, what is on disk is whole, and a line says what failed."""

import concurrent.futures
import errno
import glob
import os
import pathlib
import plistlib
import re
import shutil
import sys
import threading
import unittest
from errno import EAGAIN, EIO, EMFILE, ENOMEM, ENOSPC

from gi.repository import Gio, GLib

from failing_calls import FailingCalls, preloaded
from harness import NOTHING_CACHED, Scratch, client_entry
from reporter import Reporter

WORKERS = 3
ALWAYS = 1 << 30
TESSEL = 5
ENTRY = re.compile(rb"\(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \S+\) \[")

FAULTS = {
    "open": (EMFILE, EIO, ENOSPC), "open of /proc": (EMFILE,), "open of a folder": (EMFILE,), "mkostemp": (ENOSPC, EMFILE),
    "fopen": (EMFILE,), "fopen64": (EMFILE,), "opendir": (EMFILE,), "fdopendir": (ENOMEM,), "readdir": (EIO,),
    "read": (EIO,), "read of /proc": (EIO,), "readlink": (EIO,), "pread": (EIO,), "write": (ENOSPC, EIO),
    "fsync": (EIO, ENOSPC), "fsync of a folder": (EIO,), "close": (EIO,), "flock": (ENOMEM,), "fcntl": (EIO,), "ftruncate": (EIO,), "rename": (ENOSPC, EIO),
    "unlink": (EIO,), "mkdir": (ENOSPC, EIO), "fchmod": (EIO,), "chmod": (EIO,), "utimensat": (EIO,),
    "fstat": (ENOMEM,), "fstatat": (EIO,), "stat": (ENOMEM,), "lstat": (EIO,), "statx": (EIO,),
    "socket": (EMFILE, ENOMEM), "socketpair": (EMFILE,), "bind": (ENOMEM,), "listen": (ENOMEM,),
    "connect": (ENOMEM,), "accept4": (EMFILE, ENOMEM), "getsockopt": (ENOMEM,), "setsockopt": (ENOMEM,),
    "getsockname": (ENOMEM,), "getpeername": (ENOMEM,), "send": (ENOMEM,), "recv": (ENOMEM,), "recvmsg": (ENOMEM,),
    "poll": (ENOMEM,), "epoll_create1": (EMFILE,), "epoll_ctl": (ENOMEM, ENOSPC), "eventfd": (EMFILE,),
    "openat": (EMFILE,), "unlinkat": (EIO,), "timerfd_create": (EMFILE,), "signalfd": (EMFILE,), "pthread_create": (EAGAIN,),
}
# Nothing is lost where these fail, and nothing needs to be said.
HARMLESS = {
    # What the kernel does not tell of a process counts as not known; whose rule needs it is refused, with a line.
    "open of /proc", "read of /proc", "readlink", "fopen",
    # The new file is in its place, if not for a power cut at once. Folders that are listed tell it.
    "open of a folder", "fsync of a folder",
    # What was read, sent or written has been; a file that was written tells it.
    "close",
    # What cannot be looked at counts as missing or changed, and is looked at again at the next use.
    "fstat", "fstatat", "stat", "lstat", "statx", "fchmod", "utimensat", "pread", "readdir", "opendir",
    # Asked for wherever something is to be written, where it mostly is there.
    "mkdir",
    # Asked for again, at once.
    "poll", "send", "recv", "recvmsg", "accept4",
    # Transfers go without, or tell what they cannot do; their sockets do not block from the first.
    "fcntl", "getsockopt", "setsockopt", "getsockname", "getpeername",
    # A timer that cannot be set fires at once.
    "timerfd_create", "epoll_ctl",
    # A leftover goes at the next start.
    "unlink", ("start", "fdopendir"),
    # A descriptor kept for worse days, OpenSSL's own settings, the lock of two that start at once, a means of
    # libcurl's that is not used, a signal that is asked for no more.
    ("start", "open"), ("start", "fopen64"), ("start", "flock"), ("start", "socketpair"), ("stop", "signalfd"),
}
# What tells of these where it is not the system's text: libcurl's, and that of the dashboard's backend.
TOLD_BY = {
    "socket": ("Couldn't connect to server", "DashboardBackend(initWithName): socket() failed ("),
    "connect": ("Couldn't connect to server", "DashboardBackend(initWithName): socket connect() failed."),
    "fopen64": ("error setting certificate file: ",),
}
# What only situations that a phase sets up call.
CALLED = {"session": {"openat", "unlinkat", "ftruncate"}, "start": {"unlink"}}
# Whoever connects waits until this works again.
ONCE_ALONE = {"accept4"}


class Worker:
    """A scratch root in which one case after the other happens."""

    def __init__(self):
        self.scratch = Scratch()
        self.calls = FailingCalls(self.scratch.path("failing-calls"))
        self.file = self.scratch.path("report")
        self.cases = 0
        url = self.scratch.server.url
        section = {"httpPost": {"clients": [client_entry(override_dnu=None)]},
                   "dashboard": {"ip": "127.0.0.1", "port": 9}, "uploadServer": {"post_url": url + "/upload"}}
        self.envelopes = {}
        for name, more in (("confero", {"kodo": {}}), ("tessel", {})):
            self.scratch.publish(name, backends={**section, **more})
            self.envelopes[name] = self.scratch.server.files[f"/{name}"]
        # The file is removed then.
        self.scratch.server.behaviour["/upload"] = lambda handler: handler.answer(200, b"success")

    def reset(self):
        for folder in ("Caches", "Preferences"):
            shutil.rmtree(self.scratch.path(f"root/home/tester/Library/{folder}"), ignore_errors=True)
        shutil.rmtree(self.scratch.path("root/var"), ignore_errors=True)
        os.makedirs(self.scratch.path("root/home/tester/Library/Preferences"))
        self.scratch.set_defaults("com.vantix.zunreporting", {"zunreporting_storebag_url": self.scratch.server.url})
        self.scratch.set_defaults("com.vantix.diagnostics", {"DiagnosticSubmissionEnabled": True})
        with open(self.file, "wb") as file:
            file.write(os.urandom(100_000))
        self.scratch.server.all_posts()

    def close(self):
        self.scratch.close()

    # --- A case

    def run(self, phase, function, failure, first, times):
        """How often calls failed, and what was wrong then."""
        self.reset()
        self.cases += 1
        wrong = []
        self.told = False
        self.calls.plan("")
        try:
            getattr(self, phase)(wrong, function, failure, first, times)
        except Exception as error:  # whatever it is, it is of this case
            wrong.append(f"{type(error).__name__}: {error}")
        failed = self.failed
        self.scratch.daemon.kill()
        if failed:
            wrong += self.what_is_not_whole(function)
            if not {function, (phase, function)} & HARMLESS and not (self.told or self.is_told(function, failure)):
                wrong.append("no line tells of it")
        for line in self.scratch.daemon.lines:
            if "terminate called" in line or "check failed" in line:
                wrong.append(line)
        name = f"{phase}: {function} {errno.errorcode[failure]} from call {first} on, {min(times, 999)} times"
        return failed, [f"{name}: {what}" for what in wrong]

    def plan(self, *plan):
        self.failed = 0
        self.calls.plan(*plan)

    def end_plan(self):
        self.failed = self.calls.failed
        self.calls.plan("")

    def start(self, wrong, *plan):
        """The daemon starts with it, or says why not and starts without."""
        storebags = self.scratch.path("root/home/tester/Library/Caches/zunreportingd/storebags")
        os.makedirs(storebags, exist_ok=True)
        with open(storebags + "/.zun-leftOv", "wb"):
            pass
        self.plan(*plan)
        try:
            self.scratch.start(level="default", environment=self.calls.environment)
            self.end_plan()
        except AssertionError:
            self.end_plan()
            code = self.scratch.daemon.wait()
            # 2: the command line names what seems not to be there.
            self.told = code == 2 or self.is_told(*plan[:2])
            if code not in (1, 2) or not self.told:
                wrong.append(f"exit {code}, {self.scratch.daemon.lines}")
            self.scratch.start(level="default")
        self.serve_next(wrong)
        self.end(wrong)

    def session(self, wrong, *plan):
        self.scratch.start(level="default", environment=self.calls.environment)
        self.plan(*plan)
        try:
            with Reporter(self.scratch) as reporter:
                reporter.start()
                reporter.send(1)
                reporter.upload(self.file)
        except GLib.Error as error:
            if error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT):
                wrong.append("a client was not answered")
        self.end_plan()
        self.serve_next(wrong)
        self.end(wrong)

    def stop(self, wrong, *plan):
        self.scratch.start(level="default", environment=self.calls.environment)
        with Reporter(self.scratch) as reporter:
            reporter.start()
            reporter.send(1)
            self.plan(*plan)
        self.end(wrong)
        self.end_plan()

    # --- What must be

    def serve_next(self, wrong):
        if self.scratch.daemon.process.poll() is not None:
            wrong.append(f"the daemon has ended with {self.scratch.daemon.process.returncode}")
            return
        self.scratch.server.all_posts()
        with Reporter(self.scratch, number=2, name="next", client_type=TESSEL) as reporter:
            backends = reporter.start()
            if backends != ["httpPost", "dashboard", "uploadServer"]:
                wrong.append(f"the next client has only {backends}")
                return
            reporter.send(42)
            # The file of the client before may come late.
            while (post := self.scratch.server.next_post()).path == "/upload" or all(
                    event.get("number") != 42 for event in post.events):
                pass

    def end(self, wrong):
        code = self.scratch.daemon.stop()
        if code != 0:
            wrong.append(f"stopped with {code}")

    def what_is_not_whole(self, function):
        home = self.scratch.path("root/home/tester/Library")
        for name, envelope in self.envelopes.items():
            path = f"{home}/Caches/zunreportingd/storebags/{name}"
            if os.path.exists(path):
                with open(path, "rb") as file:
                    if file.read() != envelope:
                        yield f"{path} is not whole"
        for path in glob.glob(home + "/Preferences/*.plist"):
            with open(path, "rb") as file:
                try:
                    plistlib.load(file)
                except plistlib.InvalidFileException:
                    yield f"{path} is not whole"
        for path in glob.glob(home + "/Preferences/*.corrupt"):
            yield f"{path} was put aside"
        for path in glob.glob(self.scratch.path("root/var/mobile/Library/Logs/Quellar/Retired/*")):
            with open(path, "rb") as file:
                text = file.read()
            # What could not be cut off again stays until the next entry begins behind it.
            has_end = text.endswith(b"\n") or function == "ftruncate"
            if text and (not has_end or any(not ENTRY.match(b"(" + entry) for entry in text[1:].split(b"\n("))):
                yield f"{path} is not whole"

    def is_told(self, function, failure):
        """By a line of this failure's own: with the system's text for it, or with its name."""
        texts = [text.lower() for text in (os.strerror(failure), *TOLD_BY.get(function, ()))]
        with self.scratch.daemon.changed:
            return any(text in line.lower() for line in self.scratch.daemon.lines for text in texts)


def calls_to_fail():
    """Each of the first, then ever fewer: what is called dozens of times is called for the same again."""
    number = 1
    while True:
        yield number
        number += 1 if os.environ.get("ZUN_FAULTS") == "all" else 1 + number // 3


class FailingCallsTest(unittest.TestCase):
    def setUp(self):
        preloaded("failing_calls")  # or skipped
        self.workers = [Worker() for _ in range(WORKERS)]
        for worker in self.workers:
            self.addCleanup(worker.close)
        self.idle = list(self.workers)
        self.lock = threading.Lock()
        self.injected = []

    def sweep(self, phase, function, failure):
        """Fails one call after the other until it is not called so often; and all of them."""
        with self.lock:
            worker = self.idle.pop()
        try:
            wrong = []
            if phase == "session" and function not in ONCE_ALONE:
                wrong += worker.run(phase, function, failure, 1, ALWAYS)[1]
            for first in calls_to_fail():
                failed, what = worker.run(phase, function, failure, first, 1)
                wrong += what
                if not failed:
                    return wrong
                with self.lock:
                    self.injected.append(function)
        finally:
            with self.lock:
                self.idle.append(worker)

    def sweep_all(self, phase):
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            sweeps = [pool.submit(self.sweep, phase, function, failure)
                      for function, failures in FAULTS.items() for failure in failures]
            wrong = [what for sweep in sweeps for what in sweep.result()]
        print(f"{phase}: {len(self.injected)} faults", file=sys.stderr)
        self.assertEqual(wrong, [], "\n" + "\n".join(wrong))
        self.assertLessEqual(CALLED.get(phase, set()), set(self.injected), "these are not called any more")

    def test_every_function_that_can_fail_does(self):
        with open(pathlib.Path(__file__).parent.parent / "preload/failing_calls.c") as file:
            wrappers = re.findall(r"^(?:FAILING\([^,]+, *|FAILING_OPEN\(|(?:int|ssize_t) )(\w+)[,(]", file.read(),
                                  re.MULTILINE)
        self.assertEqual(sorted(wrappers), sorted({function.split(" of ")[0] for function in FAULTS}))

    def test_failing_call_in_a_session_is_told_and_the_next_client_is_served(self):
        self.sweep_all("session")

    def test_daemon_starts_or_tells_why_not(self):
        self.sweep_all("start")

    def test_daemon_stops(self):
        self.sweep_all("stop")


if __name__ == "__main__":
    unittest.main()
