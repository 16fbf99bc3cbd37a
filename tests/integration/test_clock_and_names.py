"""The wall clock moves a day back and forward while the daemon runs, and the names of its servers cannot be
resolved."""

import glob
import mmap
import os
import struct
import tempfile
import time
import unittest
import unittest.mock

from failing_calls import preloaded
from harness import ScratchTest, client_entry, wait_until
from reporter import Reporter
from test_dashboard import Dashboard

DAY = 86400
TESSEL = 5
NO_NAME = "https://storebag.invalid"  # no resolver knows it, ever


class ClockTest(ScratchTest):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        path = os.path.join(folder.name, "shift")
        with open(path, "w+b") as file:
            file.truncate(8)
            self.shift = mmap.mmap(file.fileno(), 8)
        self.environment = {"LD_PRELOAD": preloaded("shifted_clock"), "ZUN_SHIFTED_CLOCK": path}
        self.step(-2 * DAY)
        with unittest.mock.patch.dict(os.environ, self.environment):
            super().setUp()  # with certificates that are good on the days before and after
        self.step(0)
        self.dashboard = Dashboard()
        self.addCleanup(self.dashboard.close)
        self.served = 0
        self.scratch.set_defaults("com.vantix.diagnostics", {"DiagnosticSubmissionEnabled": True})

    def step(self, seconds):
        self.shift[:] = struct.pack("=q", seconds)

    def publish(self, **changes):
        """A storebag that is fresh for an hour. `served` counts how often it was asked for."""
        self.scratch.publish("confero", refresh_cycle=3600, backends={
            "httpPost": {"clients": [client_entry(override_dnu=None)]},
            "dashboard": {"ip": "127.0.0.1", "port": self.dashboard.port} | changes})
        envelope = self.scratch.server.files["/confero"]

        def serve(handler):
            self.served += 1
            handler.answer(200, envelope, [("Cache-Control", "max-age=3600"),
                                           ("Last-Modified", "Tue, 14 Nov 2023 22:13:20 GMT")])

        self.scratch.server.behaviour["/confero"] = serve

    def start(self):
        return self.scratch.start(environment=self.environment)

    def report(self, number):
        """A session whose event has arrived: in the post, and in a datagram by the daemon's clock."""
        with Reporter(self.scratch, number) as reporter:
            self.assertEqual(reporter.start(), ["httpPost", "dashboard"])
            reporter.send(number)
            while all(event.get("number") != number for event in self.scratch.server.next_post().events):
                pass
            datagram = self.dashboard.receive()
            while f"number={number}".encode() not in datagram.text:
                datagram = self.dashboard.receive()
            return datagram

    def entries(self):
        text = ""
        for path in glob.glob(self.scratch.path("root/var/mobile/Library/Logs/Quellar/Retired/*")):
            with open(path, encoding="utf-8") as file:
                text += file.read()
        return text

    def fetches_again_after(self, seconds):
        self.publish()
        self.start()
        self.report(1)
        self.report(2)
        self.assertEqual(self.served, 1)  # fresh
        self.step(seconds)
        now = time.time() + seconds
        datagram = self.report(3)
        self.assertAlmostEqual(datagram.seconds, now, delta=60)
        # Entries of the log are dated by the wall clock as it is now.
        days = [time.strftime("(%Y-%m-%d ", time.gmtime(at)) for at in (now, time.time() + seconds)]  # around midnight
        self.assertTrue(any(day in self.entries() for day in days), days)
        wait_until(lambda: self.served == 2, "the storebag is fetched again")
        for number in (4, 5):
            self.report(number)
        self.assertEqual(self.served, 2)  # fresh again

    # How old a storebag is counts either way: one from the day to come is no fresher than one from yesterday.
    def test_storebag_is_fetched_again_after_a_day_forward_and_all_goes_by_the_new_time(self):
        self.fetches_again_after(DAY)

    def test_storebag_is_fetched_again_after_a_day_back_and_all_goes_by_the_new_time(self):
        self.fetches_again_after(-DAY)

    def test_steps_neither_hurry_nor_stop_retransmissions(self):
        tick = 0.1  # seconds
        self.publish(reliable=int(tick * 1000))
        self.start()
        with Reporter(self.scratch) as reporter:
            reporter.start()
            begin = self.dashboard.receive()
            first = begin.received
            again = []
            for seconds in (DAY, -DAY, 2 * DAY, 0):
                self.step(seconds)
                again.append(self.dashboard.receive())
            self.assertEqual({datagram.event_number for datagram in again}, {begin.event_number})
            self.assertEqual({datagram.data[4:8] for datagram in again}, {begin.data[4:8]})
            since = [datagram.received - first for datagram in again]
            for waited, ticks in zip(since, (2, 5, 10, 19)):
                self.assertGreaterEqual(waited, ticks * tick - 0.01)  # never early
            self.dashboard.acknowledge(again[-1])


class NoNamesTest(ScratchTest):
    def test_client_of_a_server_without_an_address_is_answered(self):
        self.scratch.set_defaults("com.vantix.zunreporting", {"zunreporting_storebag_url": NO_NAME})
        self.scratch.start()
        with Reporter(self.scratch, client_type=TESSEL) as reporter:
            self.assertEqual(reporter.start(), [])
            for _ in range(2):  # and no attempt before 900 s have passed
                with Reporter(self.scratch, 2, client_type=TESSEL) as other:
                    self.assertEqual(other.start(), [])
        self.scratch.daemon.wait_for_line(f"fetchNetworkStorebag: Error resolving with lookup server {NO_NAME}/tessel")
        self.scratch.daemon.wait_for_line("Not fetching storebag for client type 5 - must wait 900 seconds", 2)
        self.expect_error("fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type 5")
        self.expect_error("fetchAndCacheStorebag: Unable to fetch storebag for client type 5")

    def test_storebag_on_disk_serves_while_its_server_has_no_address(self):
        self.scratch.publish()
        self.scratch.start()
        with Reporter(self.scratch) as reporter:
            self.assertEqual(reporter.start(), ["httpPost"])
        self.scratch.daemon.stop()
        self.scratch.change_plist("root/home/tester/Library/Preferences/com.vantix.zunreporting.plist",
                                  {"zunreporting_storebag_url": NO_NAME, "CACHED_confero_max-age": 0})
        self.scratch.start()
        with Reporter(self.scratch, 2) as reporter:
            self.assertEqual(reporter.start(), ["httpPost"])
            reporter.send(42)
        while all(event.get("number") != 42 for event in self.scratch.server.next_post().events):
            pass

    def test_post_to_a_server_without_an_address_fails_and_holds_up_no_stop(self):
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(post_url=NO_NAME + "/post")]}})
        self.scratch.start("--stop-grace", "3600")
        with Reporter(self.scratch) as reporter:
            reporter.start()
            reporter.send(1)
            self.scratch.daemon.wait_for_line("HTTPSPostBackend(postJsonMessage): post error: ")
        self.expect_error("HTTPSPostBackend(postJsonMessage): post error: ")
        self.assertEqual(self.scratch.daemon.stop(), 0)


if __name__ == "__main__":
    unittest.main()
