"""Events on their way to the metrics adaptor and to the power log."""

import concurrent.futures
import json
import os
import shutil
import unittest

from harness import BINARIES, ScratchTest, wait_until

MODULE = "root/usr/lib/zunreportingd/private/Confero/QelPerformance.so"
DOES_NOT_RESPOND = "KodoBackend(sendMessage): Kodo adaptor (null) does not respond to forwarding selector"
POWER_EVENT = "power event: category 28, sender Pallax-ZUN, "


class MetricsTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.record = self.scratch.path("record")
        self.scratch.publish(backends={"kodo": {}, "joulex": {}})
        self.event = {"category": 2, "type": 7, "payload": {"answer": 42, "text": "häh", "list": [1, 0.5, True]}}

    def install(self, name="recording_adaptor"):
        path = self.scratch.path(MODULE)
        folder = self.scratch.path("root/usr/lib")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        built = next(BINARIES.rglob(name + ".so"))
        shutil.copy(built, path + ".new")
        os.rename(path + ".new", path)
        os.chmod(path, 0o755)
        for above in (self.scratch.path("root"), self.scratch.path("root/usr"), folder,
                      *(os.path.join(folder, part) for part in
                        ("zunreportingd", "zunreportingd/private", "zunreportingd/private/Confero"))):
            os.chmod(above, 0o755)
        return path

    def start(self):
        return self.scratch.start(environment={"ZUN_TEST_ADAPTOR_FILE": self.record})

    def recorded(self):
        """The adaptor's events: (method, respCode, payload)."""
        if not os.path.exists(self.record):
            return []
        with open(self.record, encoding="utf-8") as file:
            words = [line.split(" ", 4) for line in file if line.startswith("event ")]
        return [(int(method), int(resp_code), json.loads(payload)) for _, _, method, resp_code, payload in words]

    def power_events(self):
        with self.scratch.daemon.changed:
            return [json.loads(line.split(POWER_EVENT, 1)[1]) for line in self.scratch.daemon.lines
                    if POWER_EVENT in line]

    def test_events_reach_the_adaptor_and_the_power_log(self):
        self.install()
        self.start()
        self.scratch.send([self.event, {"category": 3, "type": 1, "payload": {"event": "mine"}}])
        # The session's end is an event of category 0 for the adaptor.
        wait_until(lambda: any(event[:2] == (0, 1) for event in self.recorded()), "the session's end is recorded")
        reported = [event for event in self.recorded() if event[0] != 0]
        self.assertEqual([event[:2] for event in reported], [(2, 7), (3, 1)])
        payload = reported[0][2]
        self.assertEqual((payload["answer"], payload["text"], payload["list"]), (42, "häh", [1, 0.5, True]))
        power = self.power_events()
        self.assertEqual([(event["method"], event["respCode"]) for event in power], [(2, 7), (3, 1)])
        self.assertEqual(power[0]["answer"], 42)
        # The session's start was event 1; a payload's own "event" gives way to the number.
        self.assertEqual([event["event"] for event in power], [2, 3])
        self.scratch.daemon.stop()
        with open(self.record, encoding="utf-8") as file:
            lines = file.read().splitlines()
        self.assertEqual((lines[0], lines[-1].split()[0]), ("create 0", "destroy"))

    def test_module_that_is_installed_later_serves_the_next_session(self):
        daemon = self.start()
        self.expect_error(DOES_NOT_RESPOND)
        self.scratch.send([self.event])
        daemon.wait_for_line("KodoBackend(initWithName): Kodo adaptor module is not loaded: ")
        self.install()
        self.scratch.send([self.event])
        wait_until(lambda: (2, 7) in [event[:2] for event in self.recorded()], "the event is recorded")

    def test_module_that_others_can_write_is_not_loaded(self):
        os.chmod(self.install(), 0o775)
        daemon = self.start()
        self.expect_error(DOES_NOT_RESPOND)
        self.scratch.send([self.event])
        daemon.wait_for_line("QelPerformance.so: others can write it")
        self.assertFalse(os.path.exists(self.record))

    def test_sessions_at_once_have_an_adaptor_each(self):
        self.install()
        self.start()
        with concurrent.futures.ThreadPoolExecutor() as pool:
            clients = [pool.submit(self.scratch.send, [self.event] * 50, "--client-type", client_type)
                       for client_type in ("7", "11", "13")]
        for client in clients:
            self.assertIn("sent 50 events, 0 failed", client.result().stdout)
        wait_until(lambda: len([event for event in self.recorded() if event[:2] == (0, 1)]) == 3, "all have ended")
        self.assertEqual(len([event for event in self.recorded() if event[:2] == (2, 7)]), 150)


if __name__ == "__main__":
    unittest.main()
