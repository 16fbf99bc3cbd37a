"""The service manager hears that the daemon lives only while its threads move. One that stands still is made
with a debugger's means, or where it waits for another process."""

import ctypes
import fcntl
import os
import pathlib
import socket
import subprocess
import unittest

from failing_calls import HOLD, FailingCalls
from harness import ScratchTest, binary, wait_until

PTRACE_DETACH, PTRACE_SEIZE, PTRACE_INTERRUPT = 17, 0x4206, 0x4207
WALL = 0x40000000
EVENT = {"category": 2, "type": 7, "payload": {"a": 1}}
libc = ctypes.CDLL(None, use_errno=True)


def ptrace(request, thread, data=0):
    libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    if libc.ptrace(request, thread, None, data) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class WatchdogTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.settimeout(60)
        self.manager.bind(self.scratch.path("notify"))
        self.addCleanup(self.manager.close)
        self.scratch.publish()

    def start(self, seconds=2, environment=None):
        self.scratch.start(environment={"NOTIFY_SOCKET": self.scratch.path("notify"),
                                        "WATCHDOG_USEC": str(int(seconds * 1e6)), **(environment or {})})

    def wait_for_sign(self):
        while self.manager.recv(100) != b"WATCHDOG=1":
            pass

    def drain(self):
        self.manager.setblocking(False)
        try:
            while True:
                self.manager.recv(100)
        except BlockingIOError:
            pass
        self.manager.settimeout(60)

    def thread_names(self):
        tasks = pathlib.Path(f"/proc/{self.scratch.daemon.process.pid}/task")
        return {(task / "comm").read_text().strip() for task in tasks.iterdir()}

    def stop_threads(self, name):
        tasks = pathlib.Path(f"/proc/{self.scratch.daemon.process.pid}/task")
        stopped = []
        for task in tasks.iterdir():
            try:
                if (task / "comm").read_text().strip() != name:
                    continue
            except FileNotFoundError:
                continue  # a connection's, which has ended
            thread = int(task.name)
            # One that is at work may hold what others need: the allocator, the log.
            wait_until(lambda: (task / "stat").read_text().rsplit(")", 1)[1].split()[0] == "S", f"{name} at rest")
            try:
                ptrace(PTRACE_SEIZE, thread)
            except PermissionError:
                self.skipTest("threads may not be stopped here")
            ptrace(PTRACE_INTERRUPT, thread)
            os.waitpid(thread, WALL)
            stopped.append(thread)
            self.addCleanup(self.let_go, thread)
        self.assertTrue(stopped, f"no thread is named {name}")
        return stopped

    @staticmethod
    def let_go(thread):
        try:
            ptrace(PTRACE_DETACH, thread)
        except ProcessLookupError:
            pass  # has been let go of

    def stands_still(self, name, description):
        self.start()
        self.scratch.send([EVENT])  # with its storebag
        self.wait_for_sign()
        threads = self.stop_threads(name)
        self.expect_error(f"watchdog: {description} stands still")
        self.report_without_waiting()
        self.scratch.daemon.wait_for_line(f"watchdog: {description} stands still")
        self.drain()
        self.manager.settimeout(3)  # three chances
        self.assertRaises(TimeoutError, self.manager.recv, 100)
        for thread in threads:
            self.let_go(thread)
        self.manager.settimeout(60)
        self.wait_for_sign()

    def report_without_waiting(self):
        client = subprocess.Popen([binary("zunreportingctl"), "--address", self.scratch.address, "send",
                                   "--client-name", "tester", "--service-name", "bench"],
                                  stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(client.wait)
        self.addCleanup(client.kill)
        client.stdin.write(b'{"category": 2, "type": 7, "payload": {"a": 1}}\n')
        client.stdin.close()
        return client

    def test_transfer_thread_that_stands_still_ends_the_signs_of_life(self):
        self.stands_still("zun-transfers", "the transfer thread")

    def test_workers_that_stand_still_end_the_signs_of_life(self):
        self.stands_still("zun-worker", "the worker pool")

    def test_accepting_thread_that_stands_still_ends_the_signs_of_life(self):
        calls = FailingCalls(self.scratch.path("failing-calls"))
        self.start(seconds=1, environment=calls.environment)
        wait_until(lambda: "zun-accepting" in self.thread_names(), "a thread that accepts")
        self.expect_error("watchdog: the accepting thread stands still")
        calls.plan("accept4", HOLD, 1)
        try:
            client = self.report_without_waiting()
            self.scratch.daemon.wait_for_line("watchdog: the accepting thread stands still")
            self.drain()
        finally:
            calls.plan("")
        self.wait_for_sign()
        client.wait()  # a stop ends the fetch of its storebag

    def test_one_worker_that_stands_still_in_a_job_ends_the_signs_of_life(self):
        """It waits for another process to write the settings, as the one that has the storebag does."""
        self.start(seconds=1)
        self.expect_error("watchdog: a worker stands still")
        with open(self.scratch.path("root/home/tester/Library/Preferences/com.vantix.zunreporting.plist.lock"),
                  "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            client = self.report_without_waiting()
            self.scratch.daemon.wait_for_line("watchdog: a worker stands still")
        self.drain()
        self.wait_for_sign()
        client.wait()


if __name__ == "__main__":
    unittest.main()
