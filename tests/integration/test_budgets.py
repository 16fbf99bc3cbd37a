"""What one client can have the daemon keep, and what the others find then.

Clients write calls as bytes, many at once, and are as hostile as that allows.
"""

import os
import unittest

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from harness import ScratchTest, binary, raw_connection, wait_until  # noqa: E402
from test_uploads import PATH, SESSION, TIMEOUT, Client  # noqa: E402

MIB = 1 << 20
LOG_FOLDER = "root/var/mobile/Library/Logs/Quellar/Retired"


def call_bytes(member, parameters, serial=1, expects_reply=True):
    """A method call as it goes over the wire."""
    message = Gio.DBusMessage.new_method_call(None, PATH, SESSION, member)
    message.set_serial(serial)
    if not expects_reply:
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    if parameters is not None:
        message.set_body(parameters)
    return message.to_blob(Gio.DBusCapabilityFlags.NONE)


def session_info(more=None, number=7):
    return {"sessionInfoSessionID": GLib.Variant("u", number), "sessionInfoClientType": GLib.Variant("i", 7),
            "sessionInfoRequireUserInfo": GLib.Variant("b", True),
            "sessionInfoBatchEvent": GLib.Variant("b", True), **(more or {})}


def user_info(service="budgets"):
    return {"userInfoClientName": GLib.Variant("s", "glib"), "userInfoServiceName": GLib.Variant("s", service)}


def configuration(more=None, service="budgets"):
    return GLib.Variant("(a{sv}aa{sv}asb)", (session_info(more), [user_info(service)], [], False))


def structs_of_one_byte(wire_bytes):
    """Small on the wire, fourteen times as large in memory."""
    count = wire_bytes // 8
    return GLib.Variant.new_from_bytes(GLib.VariantType("a(y)"), GLib.Bytes.new(bytes(count)), False)


def resident_mib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("RssAnon:")) / 1024


def cpu_ticks(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


class BudgetsTest(ScratchTest):
    def assert_little(self, grown, bound):
        """In a build whose allocator is the system's: a sanitizer's gives nothing back."""
        with open(binary("zunreportingd"), "rb") as program:
            if b"__asan_init" not in (code := program.read()) and b"__tsan_init" not in code:
                self.assertLess(grown, bound)

    def client(self):
        client = Client(self.scratch.address)
        self.addCleanup(client.close)
        return client

    def raw(self):
        peer = raw_connection(self.scratch.socket)
        self.addCleanup(peer.close)
        return peer

    def error_of(self, client, member, parameters):
        with self.assertRaises(GLib.Error) as caught:
            client.call(member, parameters)
        return caught.exception.message


class DescriptionTest(BudgetsTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish()
        self.daemon = self.scratch.start()

    def test_twenty_connections_with_large_session_information_keep_nothing_of_it(self):
        self.expect_error("setSessionInfo: What describes session 7 would take")
        pid = self.daemon.process.pid
        before = resident_mib(pid)
        large = configuration({"large": structs_of_one_byte(MIB - 4096)})
        clients = [self.client() for _ in range(20)]
        for client in clients:
            text = self.error_of(client, "setSessionInfo", large)
            self.assertIn("org.freedesktop.DBus.Error.LimitsExceeded", text)
            self.assertIn("may take 65536 bytes in memory", text)
        grown = resident_mib(pid) - before
        print(f"20 connections, each 1 MiB of session information: {grown:.1f} MiB more")
        self.assert_little(grown, 100)
        # What they had stays: they still report.
        for client in clients[:2]:
            self.assertEqual(client.call("startConfigWithCompletionHandler"), ([["httpPost"]],))


class MessageLogTest(BudgetsTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish(backends={"uploadServer": {"post_url": self.scratch.server.url + "/upload"}})
        self.folder = self.scratch.path(LOG_FOLDER)
        self.expect_error("uploadFileWithURL: File upload failed for")

    def log_files(self):
        return [os.path.join(self.folder, name) for name in os.listdir(self.folder)]

    def refuse_uploads(self, count):
        request = GLib.Variant("(say)", ("file:///" + "x" * 16000, b"none"))
        self.expect_error("UploadBackend(uploadFileAtPath): Only upload a regular file.")
        peer = self.raw()
        peer.sendall(call_bytes("setSessionInfo", configuration(), expects_reply=False) +
                     call_bytes("startConfigWithCompletionHandler", None, expects_reply=False))
        for _ in range(count):
            peer.sendall(call_bytes("uploadFileAtPath", request, expects_reply=False))
        done = call_bytes("fetchDisplayURL", None)
        peer.sendall(done)
        self.assertTrue(peer.recv(1))

    def test_refused_uploads_cost_a_short_line_each(self):
        self.scratch.start(level="default")
        self.refuse_uploads(2000)
        (file,) = self.log_files()
        print(f"2,000 refused uploads with a URL of 16 KB: {os.path.getsize(file) / MIB:.1f} MiB of message log")
        self.assertLess(os.path.getsize(file), 2000 * 1200)
        self.assertGreater(os.path.getsize(file), 2000 * 1000)
        self.assertLess(max(len(line) for line in self.scratch.daemon.lines), 1400)

    def test_message_log_is_begun_anew_before_it_has_more_than_64_mib(self):
        self.scratch.start(level="default")
        self.refuse_uploads(1)
        (file,) = self.log_files()
        os.truncate(file, 64 * MIB - 1)
        self.refuse_uploads(1)
        self.expect_error("has reached 67108864 bytes and is begun anew")
        (file,) = self.log_files()
        self.assertLess(os.path.getsize(file), 2000)


class LogDataTest(BudgetsTest):
    def test_log_data_at_a_server_that_hangs_is_bounded_and_another_call_is_served(self):
        server = self.scratch.server
        server.behaviour["/logs"] = "hang"
        section = {"ip": "127.0.0.1", "port": 9, "post_url": server.url + "/logs"}
        self.scratch.publish(backends={"dashboard": section})
        daemon = self.scratch.start(level="default")
        other = self.client()
        before = resident_mib(daemon.process.pid)
        values = GLib.Variant("(av)", ([GLib.Variant("v", structs_of_one_byte(MIB - 8192))],))
        data = call_bytes("uploadLogData", values, expects_reply=False)
        for _ in range(24):
            peer = self.raw()
            peer.sendall(call_bytes("setSessionInfo", configuration(), expects_reply=False) +
                         call_bytes("startConfigWithCompletionHandler", None, expects_reply=False) + data)
        refusals = ("leaves no memory for it", "take more memory than its user's calls leave")

        def is_refused():
            return any(text in line for line in daemon.errors() for text in refusals)

        try:
            wait_until(is_refused, "some of it is refused")
            grown = resident_mib(daemon.process.pid) - before
            print(f"24 clients with 1 MiB of log data at a server that hangs: {grown:.0f} MiB more")
            self.assert_little(grown, 150)
            self.assertEqual(other.call("fetchDisplayURL"), ("URL not available",))
        finally:
            daemon.kill()  # which of them are refused, and what waiting ends with, is not told here
            self.scratch.daemon = None


class GoneClientTest(BudgetsTest):
    def test_file_of_a_client_that_has_gone_is_read_no_further(self):
        self.scratch.publish(backends={"uploadServer": {"post_url": self.scratch.server.url + "/upload"}})
        daemon = self.scratch.start()
        path = self.scratch.path("sparse")
        with open(path, "wb") as file:
            file.truncate(16 << 30)
        client = self.client()
        for token in [client.token_for(path), client.token_for(path)]:
            client.begin_upload(path, token)
        begin = cpu_ticks(daemon.process.pid)
        wait_until(lambda: cpu_ticks(daemon.process.pid) > begin + 5, "the daemon reads the file")
        client.close()
        daemon.wait_for_line("UploadBackend(uploadFileAtPath): Nobody waits for the file any more", 2)
        self.expect_error("uploadFileWithURL: File upload failed for")
        self.assertTrue(self.scratch.server.posts.empty())

    def test_file_is_read_no_further_once_the_daemon_stops(self):
        self.scratch.publish(backends={"uploadServer": {"post_url": self.scratch.server.url + "/upload"}})
        daemon = self.scratch.start()
        path = self.scratch.path("sparse")
        with open(path, "wb") as file:
            file.truncate(16 << 30)
        self.client().begin_upload(path)
        begin = cpu_ticks(daemon.process.pid)
        wait_until(lambda: cpu_ticks(daemon.process.pid) > begin + 5, "the daemon reads the file")
        self.assertEqual(daemon.stop(), 0)
        self.assertTrue(daemon.has_line("UploadBackend(uploadFileAtPath): Nobody waits for the file any more"))
        self.expect_error("uploadFileWithURL: File upload failed for")


if __name__ == "__main__":
    unittest.main()
