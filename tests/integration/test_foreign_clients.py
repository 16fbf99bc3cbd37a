"""Clients that know nothing of us call every member and get their replies: the protocol is D-Bus.

GLib, dbus-send and busctl each come with a D-Bus implementation of their own. What they
say and hear is printed, so that a run leaves a transcript.
"""

import hashlib
import hmac
import json
import os
import threading
import unittest

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from harness import Collector, ScratchTest, client_entry, run  # noqa: E402

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

CLIENT_OBJECT = """
<node><interface name="com.vantix.zunreportingd.ClientSessionReplyInterface">
  <method name="sendMessageToClient">
    <arg type="aa{sv}" direction="in"/><arg type="d" direction="in"/><arg type="q" direction="in"/>
    <arg type="q" direction="in"/><arg type="aa{sv}" direction="in"/>
  </method>
</interface></node>
"""


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

    def issue_extension(self, path):
        """A token for the file, given for its descriptor."""
        descriptors = Gio.UnixFDList.new_from_array([os.open(path, os.O_RDONLY)])  # the list takes it
        reply, _ = self.connection.call_with_unix_fd_list_sync(
            None, PATH, "com.vantix.zunreportingd.FileAccess", "issueExtension", GLib.Variant("(h)", (0,)), None,
            Gio.DBusCallFlags.NONE, TIMEOUT, descriptors, None)
        print(f"GLib: issueExtension -> {reply.get_type_string()}")
        return bytes(reply.unpack()[0])

    def take_messages(self):
        """Exports the client's object; the list that is given fills with what the daemon sends."""
        messages = []
        node = Gio.DBusNodeInfo.new_for_xml(CLIENT_OBJECT)

        def called(_connection, _sender, _path, _interface, _member, parameters, _invocation):
            print(f"GLib: sendMessageToClient {parameters.print_(True)[:120]}")
            messages.append(parameters.unpack())

        self.connection.register_object("/com/vantix/zunreportingd/client", node.interfaces[0], called, None, None)
        return messages

    def close(self):
        self.connection.close_sync(None)


class GLibTest(ScratchTest):
    def glib(self):
        client = GLibClient(self.scratch.address)
        self.addCleanup(lambda: None if client.connection.is_closed() else client.close())
        return client


class ForeignClientsTest(GLibTest):
    def setUp(self):
        super().setUp()
        section = {"httpPost": {"display_url": "https://show.example/here",
                                "clients": [{"locale_whitelist": ["DE"], "filters": [], "sampling_threshold": 1.0,
                                             "override_dnu": 1, "event_threshold": 100, "post_url": "==post_url"}]}}
        self.scratch.publish(backends=section)
        self.scratch.start()

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
            "uploadLogData", "sendMessageWithSessionInfo", "updateSharedDataWithDictionary", "updateSharedDataForKey",
            "setDigestKey"})
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
        self.assertEqual(self.busctl("call", *target, "updateSharedDataForKey", "sav", "key", "1", "s",
                                     "x").strip(), "")
        self.assertEqual(self.busctl("call", *target, "sendMessageWithSessionInfo", "a{sv}aa{sv}qqaa{sv}",
                                     "0", "0", "1", "2", "0").strip(),
                         's "Could not retrieve identifiers from sessionInfo"')
        self.expect_error("sendMessageWithSessionInfo: Could not retrieve identifiers from sessionInfo")
        self.assertIn("flushMessagesWithCompletion", self.busctl("introspect", *target))


class LargeAnswersTest(GLibTest):
    """What was posted is told back, however much larger it is than what a client may send."""

    def start(self, **changes):
        # The readable text is kept where the user's choice allows diagnostics.
        self.scratch.set_defaults("com.vantix.diagnostics", {"DiagnosticSubmissionEnabled": True})
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(override_dnu=None, **changes)]}})
        self.scratch.start()

    def client(self):
        client = self.glib()
        client.call("setSessionInfo", "(a{sv}aa{sv}asb)", SESSION_INFO, [USER_INFO], [], False)
        client.call("startConfigWithCompletionHandler", None)
        return client

    def send(self, client, number, size):
        payload = {"number": GLib.Variant("i", number), "text": GLib.Variant("s", "x" * size)}
        (text,) = client.call("sendMessageWithDictionary", "(a{sv})", message(payload=payload))
        return text

    def test_text_of_a_flushed_batch_of_60_events_of_30_KB(self):
        self.start(event_threshold=100)
        client = self.client()
        for number in range(60):
            self.assertEqual(self.send(client, number, 30_000), [])
        (text,), error = client.call("flushMessagesWithCompletion", None)
        self.assertEqual(error, [])
        self.assertEqual(json.loads(text)["events"], self.scratch.server.next_post().events)
        self.assertEqual([event.get("number") for event in json.loads(text)["events"]], [None, *range(60)])

    def test_text_of_a_batch_of_501_events_of_2_KB_that_the_threshold_flushes(self):
        self.start(event_threshold=500)
        client = self.client()
        texts = [text for number in range(502) for text in self.send(client, number, 2_000)]
        self.assertEqual(len(texts), 1)
        events = json.loads(texts[0])["events"]
        self.assertEqual(events, self.scratch.server.next_post().events)
        self.assertEqual([event.get("number") for event in events], [None, *range(501)])

    def test_text_that_the_client_library_is_given(self):
        self.start(event_threshold=100)
        events = [{"category": 2, "type": 7, "payload": {"text": "x" * 30_000}}] * 60
        output = self.scratch.send(events, "--batch", "--verbose").stdout
        text, _ = json.JSONDecoder().raw_decode(output[output.index("flush: ") + len("flush: "):])
        self.assertEqual(text["events"], self.scratch.server.next_post().events)


class EffectsTest(GLibTest):
    """Each of the thirteen operations, called by GLib, and what it brings about at the servers."""

    def setUp(self):
        super().setUp()
        self.collector = Collector(self.scratch.folder, self.scratch.authority)
        self.addCleanup(self.collector.close)
        host, port = self.collector.dashboard
        https = {"clients": [client_entry()], "display_url": "https://show.example/here"}
        self.scratch.publish(backends={
            "httpPost": https, "qrs": https, "uploadServer": {"post_url": self.collector.url + "/upload"},
            "dashboard": {"ip": host, "port": port, "post_url": self.collector.url + "/logdata"}})
        self.scratch.start()

    def client(self, level, session_id, aggregates=False, user="glib"):
        client = self.glib()
        messages = client.take_messages()
        client.call("setSessionInfo", "(a{sv}aa{sv}asb)", self.info(level, session_id),
                    [{"userInfoClientName": GLib.Variant("s", user)}], ["a framework"], aggregates)
        (backends,) = client.call("startConfigWithCompletionHandler", None)
        self.assertEqual(backends, [["httpPost", "qrs", "uploadServer", "dashboard"]])
        return client, messages

    @staticmethod
    def info(level, session_id, **changes):
        token = {"hierarchyTokenTokenID": GLib.Variant("s", "family"), "hierarchyTokenLevel": GLib.Variant("i", level)}
        info = dict(SESSION_INFO, sessionInfoSessionID=GLib.Variant("u", session_id),
                    sessionInfoHierarchyToken=GLib.Variant("a{sv}", token))
        info.update(changes)
        return info

    def posts_of_flush(self, client):
        """The posts of both HTTPS backends that a flush brings about, the one with a digest first."""
        _, error = client.call("flushMessagesWithCompletion", None)
        self.assertEqual(error, [])
        return sorted((self.scratch.server.next_post() for _ in range(2)),
                      key=lambda post: "X-ZUN-DIGEST" not in post.headers)

    def dashboard_records(self, session_id, category):
        return [record for record in self.collector.records("dashboard")
                if (record["sessionID"], record["method"]) == (session_id, category)]

    def test_messages_reach_every_backend_with_shared_data_and_digest(self):
        client, _ = self.client(0, 1)
        client.call("updateSharedDataWithDictionary", "(a{sv})",
                    {"kept": GLib.Variant("s", "yes"), "dropped": GLib.Variant("s", "no")})
        client.call("updateSharedDataForKey", "(sav)", "dropped", [])
        client.call("updateSharedDataForKey", "(sav)", "number", [GLib.Variant("d", 2.5)])
        client.call("setDigestKey", "(ayi)", b"secret", 0)
        (response,) = client.call("sendMessageWithDictionary", "(a{sv})", message(category=3))
        with_digest, without = self.posts_of_flush(client)
        digest = hmac.new(b"secret", with_digest.body, hashlib.sha1).hexdigest()
        self.assertEqual(with_digest.headers["X-ZUN-DIGEST"],
                         "<" + " ".join(digest[i:i + 8] for i in range(0, 40, 8)) + ">")
        for post in (with_digest, without):
            start, record = post.events
            self.assertEqual((start["_method"], start["_status"]), (0, 0))
            self.assertEqual({key: record.get(key) for key in ("answer", "kept", "number", "dropped")},
                             {"answer": 42, "kept": "yes", "number": 2.5, "dropped": None})
        self.collector.wait_for_records(2, "dashboard")
        (datagram,) = self.dashboard_records(1, 3)
        self.assertEqual(datagram["fields"], {"answer": "42"})
        self.assertEqual(len(response), 1)  # batching says nothing, so the dashboard's local record is it
        self.assertIn("answer=42", response[0])

    def test_single_message_is_posted_as_the_session_it_names(self):
        client = self.glib()
        info = self.info(0, 99, sessionInfoBatchEvent=GLib.Variant("b", False))
        status = client.call("sendMessageWithSessionInfo", "(a{sv}aa{sv}qqaa{sv})", info, [USER_INFO], 4, 9,
                             [{"single": GLib.Variant("b", True)}])
        self.assertEqual(status, ("finished",))
        for _ in range(2):
            (record,) = self.scratch.server.next_post().events
            self.assertEqual((record["_method"], record["_status"], record["single"]), (4, 9, True))
        self.collector.wait_for_records(1, "dashboard")
        self.assertEqual(self.dashboard_records(99, 4)[0]["fields"], {"single": "1"})

    def test_user_information_is_replaced_and_the_display_URL_told(self):
        client, _ = self.client(0, 1)
        self.assertEqual(client.call("fetchDisplayURL", None), ("https://show.example/here",))
        new = {"userInfoClientName": GLib.Variant("s", "another"), "userInfoServiceName": GLib.Variant("s", "one")}
        (active,) = client.call("fetchStatesWithUserInfo", "(aa{sv})", [new])
        self.assertEqual(active, [["httpPost", "qrs", "uploadServer", "dashboard"]])
        client.call("sendMessageWithDictionary", "(a{sv})", message())
        for post in self.posts_of_flush(client):
            self.assertEqual(post.headers["X-ZUN-Client-Name"], "another")
            self.assertEqual(post.headers["X-ZUN-Service-Name"], "one")

    def test_graceful_end_is_told_in_the_last_message(self):
        for gracefully in (True, False):
            client, _ = self.client(0, 1)
            if gracefully:
                client.call("finishSessionGracefully", None)
            client.close()
            for _ in range(2):
                record = self.scratch.server.next_post().events[-1]
                self.assertEqual((record["_method"], record["_status"]), (0, 1))
                self.assertEqual(bool(record["GracefulTermination"]), gracefully)

    def test_file_proven_by_its_descriptor_is_uploaded_and_removed(self):
        client, _ = self.client(0, 7)
        path = self.scratch.path("a log")
        with open(path, "wb") as file:
            file.write(b"content of the log")
        token = client.issue_extension(path)
        url = "file://" + path.replace(" ", "%20")
        self.assertEqual(client.call("uploadFileAtPath", "(say)", url, token), (True,))
        self.assertFalse(os.path.exists(path))
        (record,) = self.collector.wait_for_records(1, "upload")
        print(f"collector: {record}")
        (kept,) = os.listdir(self.collector.uploads)
        with open(os.path.join(self.collector.uploads, kept), "rb") as file:
            self.assertEqual(file.read(), b"content of the log")
        self.assertIn("a log", kept + str(record))

    def test_token_of_another_connection_uploads_nothing(self):
        client, _ = self.client(0, 7)
        other, _ = self.client(0, 8)
        path = self.scratch.path("log")
        with open(path, "wb") as file:
            file.write(b"content")
        token = client.issue_extension(path)
        self.assertEqual(other.call("uploadFileAtPath", "(say)", "file://" + path, token), (False,))
        self.assertTrue(os.path.exists(path))
        self.assertEqual(self.collector.records("upload"), [])
        self.expect_error("UploadBackend(uploadFileAtPath): Only upload a regular file.")
        self.expect_error("uploadFileWithURL: File upload failed for " + path)

    def test_log_data_is_uploaded_and_its_location_reported(self):
        client, _ = self.client(0, 7)
        records = [GLib.Variant("s", "line"), GLib.Variant("a{sv}", {"level": GLib.Variant("i", 3)}),
                   GLib.Variant("ay", b"\x00\xff"), GLib.Variant("(d)", (12.5,))]
        self.assertEqual(client.call("uploadLogData", "(av)", records), (True, []))
        (archive,) = self.collector.wait_for_records(1, "logdata")
        self.assertEqual(archive["records"], ["line", {"level": 3}, {"base64": "AP8="}, {"date": 12.5}])
        self.collector.wait_for_records(2, "dashboard")
        event = self.dashboard_records(7, 0)[-1]
        self.assertEqual((event["respCode"], event["fields"]), (2, {"LogDataUploadLocation": archive["location"]}))

    def test_messages_of_a_child_come_back_to_the_client_that_aggregates(self):
        parent, messages = self.client(0, 1, aggregates=True)
        child, childs_messages = self.client(1, 2, aggregates=True, user="child")
        child.call("sendMessageWithDictionary", "(a{sv})", message(category=5, kind=6))
        context = GLib.MainContext.default()
        while not any(category == 5 for _, _, category, _, _ in messages) or not childs_messages:
            context.iteration(True)
        (info,), timestamp, category, kind, (payload,) = messages[-1]
        self.assertEqual((category, kind), (5, 6))
        self.assertEqual(info["sessionInfoSessionID"], 2)
        self.assertGreater(timestamp, 1.7e9)
        self.assertEqual(payload, {"answer": 42, "userInfoClientName": "child"})
        # The topmost aggregator is the one: the child's was told that its own has ended.
        self.assertEqual(childs_messages, [([], 0.0, 0, 0, [])])
        self.assertEqual([m[0][0]["sessionInfoSessionID"] for m in messages], [1, 2, 2])
        parent.close()
        self.expect_error("sendMessageWithDictionary: Failed to get remote object proxy")


if __name__ == "__main__":
    unittest.main()
