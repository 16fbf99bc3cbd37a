"""Files that a client opened and handed over, on their way to a real upload server.

The client is GLib's: descriptors travel as D-Bus has them.
"""

import os
import random
import signal
import threading
import unittest
import urllib.parse

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from harness import Collector, ScratchTest, wait_until  # noqa: E402

PATH = "/com/vantix/zunreportingd/session"
SESSION = "com.vantix.zunreportingd.ClientSessionInterface"
FILES = "com.vantix.zunreportingd.FileAccess"
TIMEOUT = 60_000  # milliseconds

NOT_A_FILE = "UploadBackend(uploadFileAtPath): Only upload a regular file."
FAILED = "uploadFileWithURL: File upload failed for"


class Client:
    """A session whose storebag has an upload server."""

    def __init__(self, address, number=7):
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)
        info = {"sessionInfoSessionID": GLib.Variant("u", number), "sessionInfoClientType": GLib.Variant("i", 7),
                "sessionInfoRequireUserInfo": GLib.Variant("b", True)}
        user = {"userInfoClientName": GLib.Variant("s", "glib"), "userInfoServiceName": GLib.Variant("s", "files")}
        self.call("setSessionInfo", GLib.Variant("(a{sv}aa{sv}asb)", (info, [user], [], False)))
        self.backends = self.call("startConfigWithCompletionHandler")[0][0]

    def call(self, member, parameters=None):
        return self.connection.call_sync(None, PATH, SESSION, member, parameters, None, Gio.DBusCallFlags.NONE,
                                         TIMEOUT, None).unpack()

    def issue(self, descriptor):
        """A token for what is open under `descriptor`."""
        descriptors = Gio.UnixFDList.new()
        descriptors.append(descriptor)
        reply, _ = self.connection.call_with_unix_fd_list_sync(
            None, PATH, FILES, "issueExtension", GLib.Variant("(h)", (0,)), None, Gio.DBusCallFlags.NONE, TIMEOUT,
            descriptors, None)
        return bytes(reply.unpack()[0])

    def token_for(self, path, flags=os.O_RDONLY):
        descriptor = os.open(path, flags | os.O_CLOEXEC)
        try:
            return self.issue(descriptor)
        finally:
            os.close(descriptor)

    def upload_request(self, path, token):
        return GLib.Variant("(say)", ("file://" + urllib.parse.quote(path), token))

    def upload(self, path, token=None):
        token = self.token_for(path) if token is None else token
        return self.call("uploadFileAtPath", self.upload_request(path, token))[0]

    def begin_upload(self, path, token=None):
        """Sends the call and waits for nothing."""
        token = self.token_for(path) if token is None else token
        self.connection.call(None, PATH, SESSION, "uploadFileAtPath", self.upload_request(path, token), None,
                             Gio.DBusCallFlags.NONE, TIMEOUT, None, None, None)
        self.connection.flush_sync(None)

    def close(self):
        if not self.connection.is_closed():
            self.connection.close_sync(None)


class UploadTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish(backends={"uploadServer": {"post_url": self.scratch.server.url + "/upload"}})
        self.daemon = self.scratch.start()

    def client(self, number=7):
        client = Client(self.scratch.address, number)
        self.addCleanup(client.close)
        return client

    def file(self, name="trace.log", contents=b"contents"):
        path = self.scratch.path(name)
        with open(path, "wb") as file:
            file.write(contents)
        return path

    def answer(self, body, status=200):
        self.scratch.server.behaviour["/upload"] = lambda handler: handler.answer(status, body)

    def assert_refused(self, client, path, token, line=NOT_A_FILE):
        self.assertFalse(client.upload(path, token))
        self.expect_error(line)
        self.expect_error(f"{FAILED} {path}")
        self.assertTrue(self.scratch.server.posts.empty())

    # --- The good way

    def test_file_arrives_whole_and_is_removed_on_success(self):
        client = self.client(number=4_000_000_000)
        self.assertEqual(client.backends, ["uploadServer"])
        contents = random.Random(1).randbytes(3_000_000) + bytes(2_000_000)
        path = self.file("my trace.log", contents)
        self.answer(b'{"result": "success"}')
        self.assertTrue(client.upload(path))
        post = self.scratch.server.next_post()
        self.assertEqual(post.path, "/upload?uuid=TEST-DEVICE&sequence=4000000000"
                                    "&description=Vidora%20AFRC%20log%20(Uploaded%20by%20Qel)"
                                    "&filename=my%20trace.log.gz&raw=true")
        self.assertEqual(post.headers["Content-Type"], "application/octet-stream")
        self.assertEqual(post.headers["Content-Encoding"], "gzip")
        self.assertEqual(post.body, contents)
        self.assertFalse(os.path.exists(path))
        logged = self.message_log()
        self.assertIn("[uploadFileWithURL] Upload succeeded for file file://" + urllib.parse.quote(path), logged)

    def message_log(self):
        folder = self.scratch.path("root/var/mobile/Library/Logs/Quellar/Retired")
        text = ""
        for name in os.listdir(folder):
            with open(os.path.join(folder, name), encoding="utf-8") as file:
                text += file.read()
        return text

    def test_any_other_answer_leaves_the_file(self):
        client = self.client()
        path = self.file()
        self.answer(b"failed")
        self.assertTrue(client.upload(path))
        self.answer(b"", 500)
        self.assertTrue(client.upload(path))
        self.scratch.server.behaviour["/upload"] = "close"
        self.assertTrue(client.upload(path))
        self.expect_error("UploadBackend(uploadFileAtPath): post ")
        self.assertTrue(os.path.exists(path))

    def test_file_that_another_name_leads_to_as_well_loses_only_this_name(self):
        client = self.client()
        path = self.file()
        other = self.scratch.path("other.log")
        os.link(path, other)
        self.answer(b"success")
        self.assertTrue(client.upload(path))
        self.assertFalse(os.path.exists(path))
        self.assertTrue(os.path.exists(other))

    # --- What gives no access

    def test_no_token_and_forged_tokens_are_refused(self):
        client = self.client()
        path = self.file()
        for token in (b"", b"\0", b"0" * 32, os.urandom(16)):
            self.assert_refused(client, path, token)
        self.assertTrue(self.daemon.has_line("gives no access to " + path))

    def test_token_of_another_connection_is_refused(self):
        path = self.file()
        other = self.client(number=8)
        token = other.token_for(path)
        self.assert_refused(self.client(), path, token)
        self.assertTrue(other.upload(path, token))

    def test_token_serves_once(self):
        client = self.client()
        path = self.file()
        token = client.token_for(path)
        self.assertTrue(client.upload(path, token))
        self.scratch.server.next_post()
        self.assert_refused(client, path, token)

    def test_path_swapped_for_a_symbolic_link_or_another_file_is_refused(self):
        client = self.client()
        path = self.file()
        token = client.token_for(path)
        secret = self.file("secret", b"what the client may not send")
        os.unlink(path)
        os.symlink(secret, path)
        self.assert_refused(client, path, token)
        os.unlink(path)
        self.file(contents=b"another file")
        self.assert_refused(client, path, token)
        os.unlink(path)
        self.assert_refused(client, path, token)

    def test_file_swapped_while_it_is_uploaded_is_not_removed(self):
        client = self.client()
        path = self.file()

        def swap(handler):
            os.rename(path, path + ".kept")
            self.file(contents=b"another file")
            handler.answer(200, b"success")

        self.scratch.server.behaviour["/upload"] = swap
        self.assertTrue(client.upload(path))
        self.assertEqual(self.scratch.server.next_post().body, b"contents")
        self.assertTrue(os.path.exists(path))
        self.assertTrue(os.path.exists(path + ".kept"))
        self.daemon.wait_for_line(f"The uploaded file {path} stays: ")

    def test_fifo_device_and_directory_are_refused(self):
        client = self.client()
        fifo = self.scratch.path("fifo")
        os.mkfifo(fifo)
        self.assert_refused(client, fifo, client.token_for(fifo, os.O_RDONLY | os.O_NONBLOCK))
        self.assert_refused(client, "/dev/zero", client.token_for("/dev/zero"))
        folder = self.scratch.path("folder")
        os.mkdir(folder)
        self.assert_refused(client, folder, client.token_for(folder))
        self.assert_refused(client, "/proc/self/environ", client.token_for("/proc/self/environ"))

    def test_empty_file_is_refused(self):
        client = self.client()
        path = self.file(contents=b"")
        self.assert_refused(client, path, client.token_for(path), "UploadBackend(uploadFileAtPath): Input file is empty")

    def test_descriptors_that_cannot_be_read_give_no_token(self):
        client = self.client()
        path = self.file()
        for flags in (os.O_WRONLY, os.O_PATH):
            with self.assertRaises(GLib.Error):
                client.token_for(path, flags)
        self.assertTrue(client.upload(path))  # the connection stays

    def test_url_that_names_no_file_of_this_machine_is_answered_false(self):
        client = self.client()
        path = self.file()
        for url in ("", path, "https://localhost" + path, "file://elsewhere" + path):
            parameters = GLib.Variant("(say)", (url, client.token_for(path)))
            self.assertEqual(client.call("uploadFileAtPath", parameters), (False,))
        self.expect_error(FAILED)

    # --- Size

    def test_gigabyte_takes_little_memory(self):
        client = self.client()
        path = self.file("sparse.log")
        os.truncate(path, 1 << 30)
        before = self.resident()
        self.answer(b"success")
        self.assertTrue(client.upload(path))
        self.assertFalse(os.path.exists(path))
        self.assertEqual(self.scratch.server.next_post().headers["Content-Encoding"], "gzip")
        self.assertLess(self.peak_resident() - before, 16 << 20)

    def test_file_that_does_not_compress_below_the_limit_is_refused(self):
        client = self.client()
        path = self.file("noise.log", random.Random(2).randbytes(65 << 20))
        self.assert_refused(client, path, client.token_for(path),
                            "UploadBackend(uploadFileAtPath): The file takes more than 67108864 bytes when compressed")
        small = self.file()
        self.assertTrue(client.upload(small))

    def status(self, key):
        with open(f"/proc/{self.daemon.process.pid}/status", encoding="ascii") as file:
            (line,) = [line for line in file if line.startswith(key)]
        return int(line.split()[1]) << 10

    def resident(self):
        return self.status("VmRSS")

    def peak_resident(self):
        return self.status("VmHWM")

    # --- Ends that come early

    def test_other_clients_are_served_while_an_upload_hangs(self):
        self.scratch.server.behaviour["/upload"] = "hang"
        hanging = self.client()
        hanging.begin_upload(self.file())
        self.scratch.server.next_post()
        other = self.client(number=8)
        self.assertEqual(other.call("fetchDisplayURL"), ("URL not available",))
        self.assertEqual(other.backends, ["uploadServer"])
        self.expect_error("UploadBackend(uploadFileAtPath): post ")

    def test_client_that_goes_during_its_upload_leaves_the_daemon_well(self):
        answer = threading.Event()
        path = self.file()
        self.scratch.server.behaviour["/upload"] = lambda handler: (answer.wait(60), handler.answer(200, b"success"))
        client = self.client()
        client.begin_upload(path)
        self.scratch.server.next_post()
        client.close()
        answer.set()
        wait_until(lambda: not os.path.exists(path), "the uploaded file's removal")
        self.answer(b"ok")
        self.assertTrue(self.client(number=8).upload(self.file()))

    def test_termination_does_not_wait_for_a_server_that_hangs(self):
        self.daemon.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.daemon.wait(), 0)
        self.daemon = self.scratch.start("--stop-grace", "1")
        self.scratch.server.behaviour["/upload"] = "hang"
        client = self.client()
        path = self.file()
        client.begin_upload(path)
        self.scratch.server.next_post()
        client.close()
        self.daemon.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.daemon.wait(), 0)
        self.expect_error("main: stopped with 1 connections, 1 transfers,")
        self.assertTrue(os.path.exists(path))


class LogDataTest(ScratchTest):
    """Log data on its way to the collector, which reads archives with nothing of the daemon's."""

    def setUp(self):
        super().setUp()
        folder = self.scratch.path("collector")
        os.mkdir(folder)
        self.collector = Collector(folder, self.scratch.authority)
        self.addCleanup(self.collector.close)

    def start(self, **section):
        ip, port = self.collector.dashboard
        self.scratch.publish(backends={"dashboard": {"ip": ip, "port": port, **section}})
        self.scratch.start()
        client = Client(self.scratch.address)
        self.addCleanup(client.close)
        return client

    @staticmethod
    def upload(client, records):
        return client.call("uploadLogData", GLib.Variant("(av)", (records,)))

    def test_records_arrive_at_the_collector_and_their_place_is_reported(self):
        client = self.start(post_url=self.collector.url + "/logdata")
        record = GLib.Variant("a{sv}", {"level": GLib.Variant("s", "error"), "code": GLib.Variant("i", -7),
                                        "ratio": GLib.Variant("d", 0.5), "ok": GLib.Variant("b", True)})
        self.assertEqual(self.upload(client, [record, GLib.Variant("s", "gr\u00fc\u00dfe"), record]), (True, []))
        (received,) = self.collector.records("logdata")
        expected = {"level": "error", "code": -7, "ratio": 0.5, "ok": True}
        self.assertEqual(received["records"], [expected, "gr\u00fc\u00dfe", expected])
        self.scratch.daemon.wait_for_line("uploadLogData: Log data array upload successful")
        wait_until(lambda: any(received["location"] in str(event) for event in self.collector.records("dashboard")),
                   "the event that tells the place")

    def test_hundred_thousand_records_arrive(self):
        client = self.start(post_url=self.collector.url + "/logdata")
        self.assertEqual(self.upload(client, [GLib.Variant("u", number % 1000) for number in range(100_000)]),
                         (True, []))
        (received,) = self.collector.records("logdata")
        self.assertEqual(received["records"], [number % 1000 for number in range(100_000)])

    def test_section_without_post_url_takes_no_log_data(self):
        client = self.start()
        self.assertEqual(self.upload(client, []), (False, []))
        self.expect_error("DashboardBackend(uploadLogData): Post URL for log data array is nil")
        self.expect_error("uploadLogData: Log data array upload failed")

    def test_server_that_is_away_fails_the_upload(self):
        client = self.start(post_url=self.scratch.server.url + "/logs")
        self.scratch.server.behaviour["/logs"] = "close"
        self.assertEqual(self.upload(client, [GLib.Variant("s", "line")]), (False, []))
        self.scratch.server.behaviour["/logs"] = 200  # an answer without a body
        self.assertEqual(self.upload(client, [GLib.Variant("s", "line")]), (False, []))
        self.expect_error("DashboardBackend(uploadLogData): Error uploading log data array (")
        self.expect_error("DashboardBackend(uploadLogData): Error uploading log data array (the answer has no body)")
        self.expect_error("uploadLogData: Log data array upload failed")


if __name__ == "__main__":
    unittest.main()
