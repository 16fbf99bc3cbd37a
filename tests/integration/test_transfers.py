"""Servers that are slow, hostile or broken, and clients that are busy with them: what it costs everybody else."""

import threading
import unittest
import zlib

from gi.repository import Gio, GLib

from harness import DEADLINE, HTTPSServer, ScratchTest, client_entry, wait_until
from test_hierarchies import INTERFACE, PATH, TIMEOUT, Client, session_info, user_info

REALTIME = 1
TESSEL = 5
SHARE_OF_ONE_CLIENT = 1250  # of one server


def urgent_event(number):
    return {"messageParametersCategory": GLib.Variant("u", 5), "messageParametersType": GLib.Variant("u", 6),
            "messageParametersFlag": GLib.Variant("u", REALTIME),
            "messageParametersPayload": GLib.Variant("a{sv}", {"number": GLib.Variant("i", number)})}


def empty_blocks(count):
    """A gzip stream that says nothing at length, twice compressed."""
    inner, outer = (zlib.compressobj(9, zlib.DEFLATED, 31) for _ in range(2))
    stream = b"\x1f\x8b\x08\0\0\0\0\0\0\xff" + b"\0\0\0\xff\xff" * count
    once = inner.compress(stream) + inner.flush()
    return outer.compress(once) + outer.flush()


class TransfersTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.other = HTTPSServer(self.scratch.authority)
        self.addCleanup(self.other.close)
        self.scratch.publish()
        section = {"httpPost": {"clients": [client_entry(post_url=self.other.url + "/post")]}}
        self.scratch.sign("tessel", {"version": "1.0", "development": section, "vantix_internal": section,
                                     "seed": section, "release": section})

    def client(self, number, client_type=None):
        client = Client(self.scratch)
        self.addCleanup(client.close)
        info = session_info(number)
        if client_type is not None:
            info["sessionInfoClientType"] = GLib.Variant("i", client_type)
        client.start(info, user_info(f"client {number}"))
        return client

    @staticmethod
    def send(client, number):
        client.call("sendMessageWithDictionary", "(a{sv})", urgent_event(number))

    def next_number(self, server, number):
        while all(event.get("number") != number for event in server.next_post().events):
            pass

    def test_events_for_a_server_that_drips_cost_another_client_none(self):
        self.scratch.start(level="default")
        stop = threading.Event()
        self.addCleanup(stop.set)

        def drip(handler):
            handler.send_response(200)
            handler.send_header("Content-Length", "100000")
            handler.end_headers()
            while not stop.wait(1):
                handler.wfile.write(b"x")
            handler.close_connection = True

        self.scratch.server.behaviour["/post"] = drip
        busy = self.client(1)
        for number in range(SHARE_OF_ONE_CLIENT + 500):
            busy.connection.call(None, PATH, INTERFACE, "sendMessageWithDictionary",
                                 GLib.Variant("(a{sv})", (urgent_event(number),)), None, Gio.DBusCallFlags.NONE,
                                 TIMEOUT, None, None)
        busy.connection.flush_sync(None)
        self.expect_error("too many transfers to this server are under way")
        self.scratch.daemon.wait_for_line("too many transfers to this server are under way")
        self.send(self.client(2, TESSEL), 42)  # with its storebag, of the server that drips
        self.next_number(self.other, 42)
        self.scratch.daemon.process.kill()  # thousands of posts are left
        self.scratch.daemon.wait()

    def test_answer_of_stacked_codings_holds_up_nobody(self):
        self.scratch.start()
        bomb = empty_blocks(1 << 20)
        self.scratch.server.behaviour["/post"] = lambda handler: handler.answer(
            200, bomb, [("Content-Encoding", "gzip, gzip, gzip")])
        self.send(self.client(1), 1)
        self.expect_error("the body has several codings: gzip, gzip, gzip")
        self.scratch.daemon.wait_for_line("the body has several codings: gzip, gzip, gzip")
        self.send(self.client(2, TESSEL), 42)
        self.next_number(self.other, 42)

    def test_post_that_kept_connections_swallow_comes_twice_at_most(self):
        self.scratch.start()
        goes_on = threading.Event()
        held = []

        def hold(handler):
            held.append(handler)
            goes_on.wait(DEADLINE)
            handler.answer(200, b"{}")

        def swallow(handler):
            handler.close_connection = True

        client = self.client(1)
        self.scratch.server.behaviour["/post"] = hold
        for number in range(4):
            self.send(client, number)
        wait_until(lambda: len(held) >= 4, "four posts at once")
        goes_on.set()
        self.scratch.daemon.wait_for_line("didCompleteWithError", count=5)  # with the storebag's
        self.scratch.server.behaviour["/post"] = swallow
        self.scratch.server.all_posts()
        self.send(client, 7)
        self.expect_error("post error: Empty reply from server")
        self.scratch.daemon.wait_for_line("post error: Empty reply from server")
        self.scratch.daemon.wait_for_line("requests whose kept connection closed unanswered are sent once more, 1 so far")
        times = sum(event.get("number") == 7 for post in self.scratch.server.all_posts() for event in post.events)
        self.assertEqual(times, 2)
        self.scratch.server.behaviour.clear()


if __name__ == "__main__":
    unittest.main()
