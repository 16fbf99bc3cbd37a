"""A link that goes down and comes back: what waits for it goes on, and nothing is sent twice.

The daemon runs in a network of its own; its servers are at the other end of a cable (veth).
"""

import ctypes
import os
import shutil
import threading
import unittest

from gi.repository import GLib

from harness import DEADLINE, ScratchTest, run, wait_until
from test_hierarchies import Client, session_info, user_info
from test_transfers import urgent_event

CLONE_NEWNET = 0x40000000
SERVERS, DEVICE = "10.77.0.1", "10.77.0.2"
WAITS = "URLSession: transfers wait for a usable network route"

libc = ctypes.CDLL(None, use_errno=True)


def current_network():
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)


class Cable:
    """This process in a network of its own, and a second one for the daemon, joined by a cable.

    Devices: "servers" here, "device" there. Threads and processes are in the network that their maker is in.
    """

    def __init__(self):
        self.outside = current_network()
        self.theirs = self.here = None
        if shutil.which("ip") is None:
            raise unittest.SkipTest("there is no ip (iproute2)")
        try:
            self.theirs = self.new_network()
            self.here = self.new_network()
            self.ip("link", "add", "servers", "type", "veth", "peer", "name", "device", "netns",
                    f"/proc/{os.getpid()}/fd/{self.theirs}")
            for device in ("lo", "servers"):
                self.ip("link", "set", device, "up")
            self.ip("address", "add", f"{SERVERS}/24", "dev", "servers")
            with self:
                for device in ("lo", "device"):
                    self.ip("link", "set", device, "up")
                self.ip("address", "add", f"{DEVICE}/24", "dev", "device")
        except (OSError, AssertionError) as error:
            self.close()
            raise unittest.SkipTest(f"no networks of one's own here: {error}") from error

    @staticmethod
    def new_network():
        if libc.unshare(CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "unshare")
        return current_network()

    @staticmethod
    def ip(*command):
        run("ip", *command)

    @staticmethod
    def enter(network):
        if libc.setns(network, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")

    def __enter__(self):
        """The daemon's network, for this thread and what it starts."""
        self.enter(self.theirs)

    def __exit__(self, *_):
        self.enter(self.here)

    def set_device(self, state):
        """The daemon's own end, as when somebody switches a radio off: its routes go."""
        with self:
            self.ip("link", "set", "device", state)

    def set_carrier(self, state):
        """The far end, as when somebody pulls the cable: the routes stay and lead nowhere."""
        self.ip("link", "set", "servers", state)
        with self:
            wait_until(lambda: self.has_carrier() == (state == "up"), f"a carrier that is {state}")

    @staticmethod
    def has_carrier():
        return '"LOWER_UP"' in run("ip", "-json", "link", "show", "device").stdout

    def close(self):
        self.enter(self.outside)
        for network in (self.outside, self.theirs, self.here):
            if network is not None:
                os.close(network)


class LinksTest(ScratchTest):
    server_address = SERVERS

    def setUp(self):
        self.cable = Cable()
        self.addCleanup(self.cable.close)
        super().setUp()
        self.scratch.publish()
        with self.cable:
            self.daemon = self.scratch.start()
        self.client = Client(self.scratch)
        self.addCleanup(self.client.close)
        info = session_info(1)
        info["sessionInfoBatchEvent"] = GLib.Variant("b", False)
        self.client.start(info, user_info())
        self.received = []

    def send(self, number):
        self.client.call("sendMessageWithDictionary", "(a{sv})", urgent_event(number))

    def numbers(self):
        """Of the events that have come, as often as they have."""
        self.received += [event["number"] for post in self.scratch.server.all_posts() for event in post.events
                          if "number" in event]
        return self.received

    def wait_for_posts(self, numbers):
        """And until the daemon has their answers."""
        wait_until(lambda: set(self.numbers()) >= set(numbers), f"posts of {numbers}")
        self.daemon.wait_for_line("didCompleteWithError: for", len(numbers) + 2)  # with the storebag and the start

    def assert_each_once(self, numbers):
        """Once all that the daemon has sent has come: it has ended."""
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(sorted(self.numbers()), sorted(numbers))

    def test_posts_wait_while_the_link_is_down_and_come_once(self):
        self.send(0)
        self.wait_for_posts([0])
        numbers = [0]
        for times, set_link in enumerate((self.cable.set_device, self.cable.set_carrier), 1):
            with self.subTest(set_link.__name__):
                set_link("down")
                more = range(len(numbers), len(numbers) + 20)
                for number in more:
                    self.send(number)
                self.daemon.wait_for_line(WAITS, count=times)
                self.assertEqual(sorted(self.numbers()), numbers)
                set_link("up")
                numbers += more
                self.wait_for_posts(numbers)
        self.assert_each_once(numbers)

    def test_post_that_is_under_way_outlasts_a_link_that_comes_back(self):
        goes_on = threading.Event()
        self.addCleanup(goes_on.set)

        def hold(handler):
            goes_on.wait(DEADLINE)
            handler.answer(200, b"{}")

        self.scratch.server.behaviour["/post"] = hold
        for number in range(4):
            self.send(number)
        wait_until(lambda: set(self.numbers()) == set(range(4)), "posts under way")
        self.cable.set_device("down")
        self.send(4)
        self.daemon.wait_for_line(WAITS)
        goes_on.set()  # the answers are lost, and come again
        self.cable.set_device("up")
        self.wait_for_posts(range(5))
        self.assert_each_once(range(5))

    def test_server_that_ended_its_connections_meanwhile_is_posted_to_once(self):
        handlers = []

        def remember(handler):
            handlers.append(handler)
            handler.answer(200, b"{}")

        self.scratch.server.behaviour["/post"] = remember
        self.send(0)
        self.wait_for_posts([0])
        self.cable.set_carrier("down")
        self.send(1)
        self.daemon.wait_for_line(WAITS)
        for handler in handlers:
            handler.connection.close()  # the daemon hears nothing of it
        self.cable.set_carrier("up")
        self.wait_for_posts([1])
        self.assert_each_once(range(2))


if __name__ == "__main__":
    unittest.main()
