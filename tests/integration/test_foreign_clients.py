"""Clients that know nothing of us call every member and get their replies: the protocol is D-Bus.

GLib, dbus-send and busctl each come with a D-Bus implementation of their own. What they
say and hear is printed, so that a run leaves a transcript.
"""

import threading
import unittest

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from harness import ScratchTest, run  # noqa: E402

PATH = "/com/vantix/zunreportingd/session"
INTERFACE = "com.vantix.zunreportingd.ClientSessionInterface"
TIMEOUT = 60_000  # milliseconds

SESSION_INFO = {"sessionInfoSessionID": GLib.Variant("u", 7), "sessionInfoClientType": GLib.Variant("i", 7),
                "sessionInfoClientVersion": GLib.Variant("q", 3), "sessionInfoBatchEvent": GLib.Variant("b", True),
                "sessionInfoRequireUserInfo": GLib.Variant("b", True)}
USER_INFO = {"userInfoClientName": GLib.Variant("s", "glib"), "userInfoServiceName": GLib.Variant("s", "bench")}


def message(category=2, kind=7, payload=None):
    return {"messageParametersCategory": GLib.Variant("u", category), "messageParametersType": GLib.Variant("u", kind),
            "messageParametersPayload": GLib.Variant("a{sv}", payload or {"answer": GLib.Variant("i", 42)})}


class GLibClient:
    def __init__(self, address):
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

    def call(self, member, signature, *arguments, interface=INTERFACE, path=PATH):
        parameters = GLib.Variant(signature, arguments) if signature else None
        reply = self.connection.call_sync(None, path, interface, member, parameters, None,
                                          Gio.DBusCallFlags.NONE, TIMEOUT, None)
        print(f"GLib: {member} -> {reply.print_(True)[:120]}")
        return reply.unpack()

    def close(self):
        self.connection.close_sync(None)


class ForeignClientsTest(ScratchTest):
    def setUp(self):
        super().setUp()
        section = {"httpPost": {"display_url": "https://show.example/here",
                                "clients": [{"locale_whitelist": ["DE"], "filters": [], "sampling_threshold": 1.0,
                                             "override_dnu": 1, "event_threshold": 100, "post_url": "==post_url"}]}}
        self.scratch.publish(backends=section)
        self.scratch.start()

    def glib(self):
        client = GLibClient(self.scratch.address)
        self.addCleanup(lambda: None if client.connection.is_closed() else client.close())
        return client

    def test_glib_calls_every_member(self):
        client = self.glib()
        self.assertEqual(client.call("setSessionInfo", "(a{sv}aa{sv}asb)", SESSION_INFO, [USER_INFO], [], False), ())
        self.assertEqual(client.call("startConfigWithCompletionHandler", None), ([["httpPost"]],))
        self.assertEqual(client.call("fetchStatesWithUserInfo", "(aa{sv})", [USER_INFO]), ([["httpPost"]],))
        self.assertEqual(client.call("fetchDisplayURL", None), ("https://show.example/here",))
        self.assertEqual(client.call("sendMessageWithDictionary", "(a{sv})", message()), ([],))
        self.assertEqual(client.call("updateSharedDataWithDictionary", "(a{sv})", {"k": GLib.Variant("s", "v")}), ())
        self.assertEqual(client.call("updateSharedDataForKey", "(sav)", "k", [GLib.Variant("d", 2.5)]), ())
        self.assertEqual(client.call("updateSharedDataForKey", "(sav)", "k", []), ())
        self.assertEqual(client.call("setDigestKey", "(ayi)", b"secret", 0), ())
        self.assertEqual(client.call("uploadFileAtPath", "(say)", "file:///nowhere", b"no token"), (False,))
        self.assertEqual(client.call("uploadLogData", "(av)", [GLib.Variant("s", "line")]), (False, []))
        self.expect_error("uploadFileWithURL: File upload failed for /nowhere")
        self.expect_error("uploadLogData: Log data array upload failed")
        result, error = client.call("flushMessagesWithCompletion", None)
        self.assertEqual(error, [])
        status = client.call("sendMessageWithSessionInfo", "(a{sv}aa{sv}qqaa{sv})", SESSION_INFO, [USER_INFO], 2, 9,
                             [{"single": GLib.Variant("b", True)}])
        self.assertEqual(status, ("finished",))
        self.assertEqual(client.call("finishSessionGracefully", None), ())
        client.close()
        records = self.scratch.server.next_post().events
        self.assertEqual([record["_status"] for record in records], [0, 7])
        self.assertEqual(records[1]["answer"], 42)

    def test_glib_is_told_of_a_flush_without_anything_to_flush(self):
        client = self.glib()
        client.call("setSessionInfo", "(a{sv}aa{sv}asb)", SESSION_INFO, [USER_INFO], [], False)
        _, error = client.call("flushMessagesWithCompletion", None)
        self.assertEqual(error, [("com.vantix.zunreporting.error", -1, "No backends available to send message")])

    def test_glib_gets_errors_for_what_does_not_exist_and_the_connection_stays(self):
        client = self.glib()
        cases = [("noSuchMember", None, (), INTERFACE, PATH, "org.freedesktop.DBus.Error.UnknownMethod"),
                 ("uploadFile", "(say)", ("file:///x", b""), INTERFACE, PATH,
                  "org.freedesktop.DBus.Error.UnknownMethod"),
                 ("fetchDisplayURL", "(s)", ("x",), INTERFACE, PATH, "org.freedesktop.DBus.Error.InvalidArgs"),
                 ("fetchDisplayURL", None, (), "no.such.Interface", PATH,
                  "org.freedesktop.DBus.Error.UnknownInterface"),
                 ("fetchDisplayURL", None, (), INTERFACE, "/elsewhere", "org.freedesktop.DBus.Error.UnknownObject")]
        for member, signature, arguments, interface, path, expected in cases:
            with self.assertRaises(GLib.Error) as raised:
                client.call(member, signature, *arguments, interface=interface, path=path)
            name = Gio.DBusError.get_remote_error(raised.exception)
            print(f"GLib: {member} on {interface} at {path} -> {name}")
            self.assertEqual(name, expected)
        self.assertEqual(client.call("fetchDisplayURL", None), ("URL not available",))

    def test_glib_reads_complete_introspection_and_pings(self):
        client = self.glib()
        (text,) = client.call("Introspect", None, interface="org.freedesktop.DBus.Introspectable")
        node = Gio.DBusNodeInfo.new_for_xml(text)
        members = {method.name for method in node.lookup_interface(INTERFACE).methods}
        self.assertEqual(members, {
            "setSessionInfo", "startConfigWithCompletionHandler", "fetchStatesWithUserInfo", "fetchDisplayURL",
            "sendMessageWithDictionary", "flushMessagesWithCompletion", "finishSessionGracefully", "uploadFileAtPath",
            "uploadLogData", "sendMessageWithSessionInfo", "updateSharedDataWithDictionary", "updateSharedDataForKey", "setDigestKey"})
        self.assertEqual(client.call("Ping", None, interface="org.freedesktop.DBus.Peer"), ())
        (machine,) = client.call("GetMachineId", None, interface="org.freedesktop.DBus.Peer")
        self.assertRegex(machine, "^[0-9a-f]{32}$")

    def test_glib_hears_other_replies_while_a_flush_waits_for_its_post(self):
        answer = threading.Event()
        self.scratch.server.behaviour["/post"] = lambda handler: (answer.wait(60), handler.answer(200, b"{}"))
        client = self.glib()
        client.call("setSessionInfo", "(a{sv}aa{sv}asb)", SESSION_INFO, [USER_INFO], [], False)
        client.call("startConfigWithCompletionHandler", None)
        client.call("sendMessageWithDictionary", "(a{sv})", message())
        loop = GLib.MainLoop()
        order = []

        def heard(connection, result, name):
            connection.call_finish(result)
            order.append(name)
            if name == "url":
                answer.set()
            if len(order) == 2:
                loop.quit()

        for member, name in (("flushMessagesWithCompletion", "flush"), ("fetchDisplayURL", "url")):
            client.connection.call(None, PATH, INTERFACE, member, None, None, Gio.DBusCallFlags.NONE, TIMEOUT, None,
                                   heard, name)
        GLib.timeout_add(TIMEOUT, loop.quit)
        loop.run()
        self.assertEqual(order, ["url", "flush"])

    def dbus_send(self, member, *arguments):
        result = run("dbus-send", f"--peer={self.scratch.address}", "--print-reply", "--type=method_call", PATH,
                     f"{INTERFACE}.{member}", *arguments)
        print(f"dbus-send: {member} {' '.join(arguments)} -> {result.stdout.strip()!r}")
        return result.stdout

    def test_dbus_send_calls_what_its_arguments_can_express(self):
        self.assertIn('string "URL not available"', self.dbus_send("fetchDisplayURL"))
        self.assertIn("method return", self.dbus_send("finishSessionGracefully"))
        self.assertIn("array", self.dbus_send("startConfigWithCompletionHandler"))
        self.assertIn("No backends available to send message", self.dbus_send("flushMessagesWithCompletion"))
        # A dictionary of strings stands in where a dictionary of variants is wanted.
        self.assertIn("method return", self.dbus_send("updateSharedDataWithDictionary",
                                                      "dict:string:string:key,value"))
        self.assertIn("array", self.dbus_send(
            "sendMessageWithDictionary",
            "dict:string:string:messageParametersCategory,2,messageParametersType,7"))
        self.assertIn("method return", self.dbus_send("setDigestKey", "array:byte:1,2,3", "int32:0"))
        self.expect_error("fetchAndCacheStorebag: clientType 0 is invalid")

    def busctl(self, *arguments):
        result = run("busctl", f"--address={self.scratch.address}", *arguments)
        print(f"busctl: {' '.join(arguments)} -> {result.stdout.strip()[:120]!r}")
        return result.stdout

    def test_busctl_calls_and_introspects(self):
        target = ["com.vantix.zunreportingd", PATH, INTERFACE]
        self.assertEqual(self.busctl("call", *target, "fetchDisplayURL").strip(), 's "URL not available"')
        self.assertEqual(self.busctl("call", *target, "setSessionInfo", "a{sv}aa{sv}asb", "3",
                                     "sessionInfoSessionID", "u", "1", "sessionInfoClientType", "i", "7",
                                     "sessionInfoRequireUserInfo", "b", "true",
                                     "1", "1", "userInfoClientName", "s", "busctl", "0", "false").strip(), "")
        self.assertEqual(self.busctl("call", *target, "fetchStatesWithUserInfo", "aa{sv}", "0").strip(), "aas 0")
        self.assertEqual(self.busctl("call", *target, "sendMessageWithDictionary", "a{sv}", "2",
                                     "messageParametersCategory", "q", "1", "messageParametersType", "q", "2").strip(),
                         "as 0")
        self.assertEqual(self.busctl("call", *target, "updateSharedDataForKey", "sav", "key", "1", "s", "x").strip(), "")
        self.assertEqual(self.busctl("call", *target, "sendMessageWithSessionInfo", "a{sv}aa{sv}qqaa{sv}",
                                     "0", "0", "1", "2", "0").strip(),
                         's "Could not retrieve identifiers from sessionInfo"')
        self.expect_error("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo")
        self.assertIn("flushMessagesWithCompletion", self.busctl("introspect", *target))


if __name__ == "__main__":
    unittest.main()
