"""What a burst of clients leaves of the daemon's memory."""

import unittest

from gi.repository import GLib

from harness import ScratchTest, binary, raw_connection, wait_until
from reporter import Reporter
from test_budgets import MIB, call_bytes, configuration, resident_mib, structs_of_one_byte

CLIENTS = 40
EVENTS = 100
# The large calls, before or after they have been decoded.
REFUSED = ("its values take more memory than its user's calls leave",
           "setSessionInfo: What describes session 7 would take")
# Less than 8 MiB that are free are not worth a look through all that is allocated.
LEFT_MIB = 10


def event(number):
    payload = {f"key{key}": GLib.Variant("s", f"value {number} of {key}") for key in range(20)}
    return GLib.Variant("(a{sv})", ({"messageParametersCategory": GLib.Variant("u", 2),
                                     "messageParametersType": GLib.Variant("u", 7),
                                     "messageParametersPayload": GLib.Variant("a{sv}", payload)},))


class MemoryTest(ScratchTest):
    def setUp(self):
        super().setUp()
        with open(binary("zunreportingd"), "rb") as program:
            if b"__asan_init" in (code := program.read()) or b"__tsan_init" in code:
                self.skipTest("a sanitizer's allocator gives nothing back")
        self.scratch.publish()

    def burst(self):
        """Clients whose calls are decoded, and whose events are kept, on a thread each."""
        calls = (call_bytes("setSessionInfo", configuration(), expects_reply=False) +
                 call_bytes("startConfigWithCompletionHandler", None, expects_reply=False) +
                 b"".join(call_bytes("sendMessageWithDictionary", event(number), expects_reply=False)
                          for number in range(EVENTS)))
        large = call_bytes("setSessionInfo", configuration({"large": structs_of_one_byte(MIB - 4096)}), serial=2)
        clients = [raw_connection(self.scratch.socket) for _ in range(CLIENTS)]
        for client in clients:
            client.sendall(calls)
        for client in clients:
            client.sendall(large)
        for client in clients:
            client.recv(1)
        peak = resident_mib(self.scratch.daemon.process.pid)
        for client in clients:
            client.close()
        return peak

    def test_memory_of_a_burst_of_clients_goes_back(self):
        pid = self.scratch.start(level="default").process.pid
        with Reporter(self.scratch) as reporter:  # what it has allocated lies among the others'
            reporter.start()
            reporter.send(1)
            before = resident_mib(pid)
            self.assertGreater(self.burst(), before + 2 * LEFT_MIB)
            wait_until(lambda: resident_mib(pid) < before + LEFT_MIB, "the memory goes back")
        for reason in REFUSED:
            if self.scratch.daemon.has_line(reason):
                self.expect_error(reason)


if __name__ == "__main__":
    unittest.main()
