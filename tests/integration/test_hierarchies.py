"""Sessions of one hierarchy as clients of the real daemon: who is sent copies of what, and what becomes of a
client that does not read them. The clients' D-Bus is GLib's."""

import os
import socket
import struct
import threading
import unittest

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from harness import DEADLINE, ScratchTest, client_entry, wait_until  # noqa: E402

PATH = "/com/vantix/zunreportingd/session"
INTERFACE = "com.vantix.zunreportingd.ClientSessionInterface"
CLIENT_PATH = "/com/vantix/zunreportingd/client"
CLIENT_INTERFACE = """<node><interface name="com.vantix.zunreportingd.ClientSessionReplyInterface">
  <method name="sendMessageToClient">
    <arg direction="in" type="aa{sv}" name="sessionInfo"/><arg direction="in" type="d" name="timestamp"/>
    <arg direction="in" type="q" name="category"/><arg direction="in" type="q" name="type"/>
    <arg direction="in" type="aa{sv}" name="payload"/>
  </method></interface></node>"""
TIMEOUT = 60_000  # milliseconds
LOST = "sendMessageWithDictionary: Failed to get remote object proxy: "
END_OF_AGGREGATION = ([], 0.0, 0, 0, [])


def session_info(number, token=None, level=0):
    info = {"sessionInfoSessionID": GLib.Variant("u", number), "sessionInfoClientType": GLib.Variant("i", 7),
            "sessionInfoBatchEvent": GLib.Variant("b", True), "sessionInfoRequireUserInfo": GLib.Variant("b", True)}
    if token is not None:
        info["sessionInfoHierarchyToken"] = GLib.Variant("a{sv}", {
            "hierarchyTokenTokenID": GLib.Variant("s", token), "hierarchyTokenLevel": GLib.Variant("u", level)})
    return info


def user_info(name="glib"):
    return {"userInfoClientName": GLib.Variant("s", name), "userInfoServiceName": GLib.Variant("s", "bench")}


class Client:
    """A session with an exported client object. What it is sent comes into `received`."""

    def __init__(self, scratch):
        self.received = []
        self.signatures = set()
        self.context = GLib.MainContext.new()
        self.loop = GLib.MainLoop.new(self.context, False)
        ready = threading.Event()
        self.thread = threading.Thread(target=self.run, args=(scratch.address, ready), daemon=True)
        self.thread.start()
        assert ready.wait(DEADLINE)

    def run(self, address, ready):
        self.context.push_thread_default()
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)
        node = Gio.DBusNodeInfo.new_for_xml(CLIENT_INTERFACE)
        self.connection.register_object(CLIENT_PATH, node.interfaces[0], self.called, None, None)
        ready.set()
        self.loop.run()
        self.context.pop_thread_default()

    def called(self, _connection, _sender, _path, _interface, _method, parameters, invocation):
        self.signatures.add(parameters.get_type_string())
        self.received.append(parameters.unpack())
        assert invocation.get_message().get_flags() & Gio.DBusMessageFlags.NO_REPLY_EXPECTED

    def call(self, member, signature=None, *arguments):
        parameters = GLib.Variant(signature, arguments) if signature else None
        return self.connection.call_sync(None, PATH, INTERFACE, member, parameters, None, Gio.DBusCallFlags.NONE,
                                         TIMEOUT, None).unpack()

    def start(self, info, user=None, aggregates=False):
        self.call("setSessionInfo", "(a{sv}aa{sv}asb)", info, [user or user_info()], [], aggregates)
        return self.call("startConfigWithCompletionHandler")

    def send(self, category, payload=None):
        message = {"messageParametersCategory": GLib.Variant("u", category),
                   "messageParametersType": GLib.Variant("u", 3)}
        if payload is not None:
            message["messageParametersPayload"] = GLib.Variant("a{sv}", payload)
        return self.call("sendMessageWithDictionary", "(a{sv})", message)

    def wait_for(self, count):
        wait_until(lambda: len(self.received) >= count, f"{count} copies")
        return self.received

    def close(self):
        if not self.connection.is_closed():
            self.connection.close_sync(None)
        self.loop.quit()
        self.thread.join(DEADLINE)


class MuteClient:
    """A client that makes itself an aggregator by bytes of its own, and then never reads again."""

    def __init__(self, address, token):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(address.removeprefix("unix:path="))
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        self.read_until(b"\r\n")
        self.socket.sendall(b"BEGIN\r\n")
        parameters = GLib.Variant("(a{sv}aa{sv}asb)", (session_info(90, token, 0), [user_info("mute")], [], True))
        self.call("setSessionInfo", parameters, 1)
        self.call("startConfigWithCompletionHandler", None, 2)
        self.read_until(struct.pack("<BBBB", ord("l"), 2, 1, 1), count=2)

    def call(self, member, parameters, serial):
        message = Gio.DBusMessage.new_method_call(None, PATH, INTERFACE, member)
        if parameters is not None:
            message.set_body(parameters)
        message.set_serial(serial)
        message.set_byte_order(Gio.DBusMessageByteOrder.LITTLE_ENDIAN)
        self.socket.sendall(message.to_blob(Gio.DBusCapabilityFlags.NONE))

    def read_until(self, what, count=1):
        data = b""
        while data.count(what) < count:
            piece = self.socket.recv(65536)
            assert piece, "the daemon closed the connection"
            data += piece


class HierarchiesTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(event_threshold=100_000)]}})
        self.scratch.start()

    def client(self):
        client = Client(self.scratch)
        self.addCleanup(client.close)
        return client

    def test_parent_is_sent_copies_of_what_its_child_reports(self):
        parent, child = self.client(), self.client()
        self.assertEqual(parent.start(session_info(1, "family", 0), aggregates=True), ([["httpPost"]],))
        child.start(session_info(2, "family", 1), user_info("child"))
        child.send(77, {"answer": GLib.Variant("i", 42), "userInfoServiceName": GLib.Variant("s", "mine"),
                        "bytes": GLib.Variant("ay", b"\1\2"), "nested": GLib.Variant("a{sv}", {
                            "list": GLib.Variant("av", [GLib.Variant("d", 2.5)])})})
        child.send(78)
        received = parent.wait_for(4)
        self.expect_error("Textweave unable to handle key: bytes")  # JSON has no room for these; copies have
        self.expect_error("Textweave unable to handle key: nested")
        self.assertEqual([(r[0][0]["sessionInfoSessionID"], r[2], r[3]) for r in received],
                         [(1, 0, 0), (2, 0, 0), (2, 77, 3), (2, 78, 3)])
        info, timestamp, _, _, payload = received[2]
        self.assertEqual(info[0]["sessionInfoHierarchyToken"],
                         {"hierarchyTokenTokenID": "family", "hierarchyTokenLevel": 1})
        self.assertGreater(timestamp, 1_700_000_000)
        self.assertEqual(payload, [{"answer": 42, "userInfoServiceName": "bench", "bytes": [1, 2],
                                    "nested": {"list": [2.5]}, "userInfoClientName": "child"}])
        self.assertEqual(received[3][4], [])
        self.assertEqual(parent.signatures, {"(aa{sv}dqqaa{sv})"})
        self.assertEqual(child.received, [])

        child.call("finishSessionGracefully")
        child.close()
        _, _, category, kind, (report,) = parent.wait_for(5)[4]
        self.assertEqual((category, kind), (0, 1))
        self.assertEqual((report["GracefulTermination"], report["SessionsCount_confero"], report["StorebagsCount"]),
                         (True, 2, 1))
        self.assertGreater(report["ProcessMemoryUsage"], report["StorebagsSize"])
        self.assertGreater(report["BatchSize_confero"], 0)
        parent.close()
        self.expect_error(LOST + "the connection has ended")  # its own end is told to nobody

    def test_aggregator_is_told_when_one_above_it_takes_over(self):
        lower, top = self.client(), self.client()
        lower.start(session_info(2, "family", 1), aggregates=True)
        lower.wait_for(1)
        top.start(session_info(1, "family", 0), aggregates=True)
        self.assertEqual(lower.wait_for(2)[1], END_OF_AGGREGATION)
        lower.send(5)
        self.assertEqual([(r[0][0]["sessionInfoSessionID"], r[2]) for r in top.wait_for(2)], [(1, 0), (2, 5)])
        self.assertEqual(len(lower.received), 2)
        top.close()
        self.expect_error(LOST + "the connection has ended")

    def test_aggregator_under_an_aggregator_is_told_at_its_start(self):
        top, lower = self.client(), self.client()
        top.start(session_info(1, "family", 0), aggregates=True)
        lower.start(session_info(2, "family", 1), aggregates=True)
        self.assertEqual(lower.wait_for(1), [END_OF_AGGREGATION])
        self.assertEqual(top.wait_for(2)[1][0][0]["sessionInfoSessionID"], 2)
        top.close()
        self.expect_error(LOST + "the connection has ended")

    def test_client_that_aggregates_its_own_messages_gets_all_of_them_however_fast_it_sends(self):
        client = self.client()
        client.start(session_info(1), aggregates=True)
        message = GLib.Variant("(a{sv})", ({"messageParametersCategory": GLib.Variant("u", 5),
                                            "messageParametersType": GLib.Variant("u", 6),
                                            "messageParametersPayload": GLib.Variant(
                                                "a{sv}", {"text": GLib.Variant("s", "x" * 2000)})},))
        for _ in range(2000):
            client.connection.call(None, PATH, INTERFACE, "sendMessageWithDictionary", message, None,
                                   Gio.DBusCallFlags.NONE, TIMEOUT, None, None)
        client.wait_for(2001)
        client.close()
        self.expect_error(LOST + "the connection has ended")

    def test_client_that_never_reads_loses_copies_and_holds_up_nobody(self):
        mute = MuteClient(self.scratch.address, "family")
        self.addCleanup(mute.socket.close)
        child, stranger, watcher = self.client(), self.client(), self.client()
        child.start(session_info(2, "family", 1))
        watcher.start(session_info(3, "others", 0), aggregates=True)
        stranger.start(session_info(4, "others", 1))
        payload = {"text": GLib.Variant("s", "x" * 20_000)}
        for number in range(400):  # 8 MB, of which the socket and the queue take less than half
            child.send(number, payload)
        self.scratch.daemon.wait_for_line(LOST)
        stranger.send(5)
        self.assertEqual(watcher.wait_for(3)[2][2], 5)
        lost = [line for line in self.scratch.daemon.errors() if line.startswith(LOST)]
        self.assertEqual(len(lost), 1, lost)
        self.assertTrue(lost[0].endswith("does not read what it is sent"), lost)
        with open(f"/proc/{self.scratch.daemon.process.pid}/status", encoding="ascii") as status:
            anonymous = next(int(line.split()[1]) for line in status if line.startswith("RssAnon:"))
        print(f"anonymous memory of the daemon with a client that never reads: {anonymous} KiB")
        self.expect_error("does not read what it is sent")
        self.expect_error(LOST + "the connection has ended")
        mute.socket.close()
        watcher.close()
        wait_until(lambda: sum(LOST + "the connection has ended" in line
                               for line in self.scratch.daemon.errors()) == 2, "both ended")


if __name__ == "__main__":
    unittest.main()
