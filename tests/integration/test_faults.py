"""What clients, servers and disks can do wrong. Each fault has its line, and the next client is served."""

import os
import socket
import struct
import subprocess
import unittest

from harness import Authority, HTTPSServer, ScratchTest, client_entry, raw_connection

EVENT = {"category": 2, "type": 7, "payload": {"a": 1}}
INVALID_FETCH = ["fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type 5",
                 "fetchAndCacheStorebag: Unable to fetch storebag for client type 5"]


class ClientFaultsTest(ScratchTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish()
        self.scratch.start()

    def serves_the_next_client(self):
        result = self.scratch.send([EVENT])
        self.assertIn("sent 1 events, 0 failed", result.stdout)

    def test_peer_that_says_nothing_holds_up_nobody(self):
        silent = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        silent.connect(self.scratch.socket)
        self.addCleanup(silent.close)
        self.serves_the_next_client()

    def test_half_a_message_holds_up_nobody(self):
        peer = raw_connection(self.scratch.socket)
        self.addCleanup(peer.close)
        peer.sendall(b"l\x01\x00\x01\x10\x00\x00")
        self.serves_the_next_client()

    def test_garbage_after_authentication_ends_that_connection_alone(self):
        peer = raw_connection(self.scratch.socket)
        self.addCleanup(peer.close)
        peer.sendall(b"\xff" * 64)
        self.assertEqual(peer.recv(1), b"")
        self.expect_error("sent a malformed message, closing its connection: its byte order is unknown")
        self.serves_the_next_client()

    def test_message_that_claims_to_be_huge_is_refused_without_being_read(self):
        peer = raw_connection(self.scratch.socket)
        self.addCleanup(peer.close)
        path = b"\x01\x01o\x00" + struct.pack("<I", 1) + b"/\x00"
        member = b"\x03\x01s\x00" + struct.pack("<I", 4) + b"Ping\x00"
        signature = b"\x08\x01g\x00\x01s\x00"
        fields = path.ljust(16, b"\x00") + member.ljust(16, b"\x00") + signature
        header = b"l\x01\x00\x01" + struct.pack("<III", 100_000_000, 1, len(fields)) + fields
        peer.sendall(header.ljust((len(header) + 7) // 8 * 8, b"\x00"))
        self.assertIn(b"org.freedesktop.DBus.Error.LimitsExceeded", peer.recv(4096))
        self.expect_error("sent a message of 1000000")
        self.serves_the_next_client()

    def test_client_killed_in_the_middle_ends_its_session_alone(self):
        client = subprocess.Popen(["/usr/bin/python3", "-c", f"""
import sys; sys.path.insert(0, {os.path.dirname(__file__)!r})
from harness import raw_connection
peer = raw_connection({self.scratch.socket!r}); peer.sendall(b'l\\x01\\x00'); print('up', flush=True); peer.recv(1)
"""], stdout=subprocess.PIPE)
        client.stdout.readline()
        client.kill()
        client.communicate()
        self.scratch.daemon.wait_for_line(" was invalidated", count=2)
        self.serves_the_next_client()


class StorebagFaultsTest(ScratchTest):
    """Client type 5 ("tessel") has no built-in fallback."""

    def send(self, check=False):
        return self.scratch.send([EVENT], "--client-type", "5", check=check)

    def fails_and_recovers(self, lines, errors=()):
        self.scratch.start()
        self.assertEqual(self.send().returncode, 3)
        for line in lines:
            self.scratch.daemon.wait_for_line(line)
        for line in (*errors, *INVALID_FETCH):
            self.expect_error(line)
        self.scratch.publish("confero")
        self.assertEqual(self.scratch.send([EVENT]).returncode, 0)

    def resolving_failed(self, why=""):
        return ["fetchNetworkStorebag: Error resolving with lookup server "
                f"{self.scratch.server.url}/tessel?version=3.2.1, sendSynchronousRequest error {why}"]

    def test_answer_404(self):
        self.fails_and_recovers(self.resolving_failed())

    def test_answer_500(self):
        self.scratch.server.behaviour["/tessel"] = 500
        self.fails_and_recovers(self.resolving_failed())

    def test_answer_cut_off(self):
        self.scratch.server.behaviour["/tessel"] = "close"
        self.fails_and_recovers(self.resolving_failed())

    def test_answer_empty(self):
        self.scratch.server.files["/tessel"] = b""
        self.fails_and_recovers(["fetchNetworkStorebag: received zero-length storebag for 'tessel‘, treat as unchanged"],
                                ["fetchStorebagWithName: propertyListWithData error empty",
                                 "fetchStorebagWithName: Signature is missing"])

    def test_answer_of_100_megabytes(self):
        def flood(handler):
            handler.send_response(200)
            handler.send_header("Content-Length", str(100 << 20))
            handler.end_headers()
            try:
                for _ in range(100):
                    handler.wfile.write(b"x" * (1 << 20))
            except OSError:
                pass
            handler.close_connection = True

        self.scratch.server.behaviour["/tessel"] = flood
        self.fails_and_recovers(self.resolving_failed())

    def test_answer_that_is_no_property_list(self):
        self.scratch.server.files["/tessel"] = b"<html>maintenance</html>"
        self.fails_and_recovers([], ["fetchStorebagWithName: propertyListWithData error",
                                     "fetchStorebagWithName: Signature is missing"])

    def test_wrong_signature(self):
        self.scratch.publish("tessel")
        with open(self.scratch.path("storebags/tessel"), "rb") as file:
            envelope = file.read()
        import plistlib
        parts = plistlib.loads(envelope)
        parts["signature"] = "AAAA" + parts["signature"][4:]
        self.scratch.server.files["/tessel"] = plistlib.dumps(parts)
        self.fails_and_recovers([], ["fetchStorebagWithName: Signature can not be verified, "])

    def test_storebag_of_another_name_or_an_older_serial_replaces_nothing(self):
        cached = self.scratch.path("root/home/tester/Library/Caches/zunreportingd/storebags/tessel")
        self.scratch.publish("tessel", serial=5)
        self.scratch.start()
        self.assertEqual(self.send().returncode, 0)
        with open(cached, "rb") as file:
            good = file.read()
        self.scratch.publish("confero")
        others = self.scratch.server.files["/confero"]
        self.scratch.publish("tessel", serial=4)
        older = self.scratch.server.files["/tessel"]
        for envelope, line in ((older, "storebag 'tessel' has serial 4, but 5 was accepted before"),
                               (others, "storebag 'tessel' was signed as 'confero'")):
            self.scratch.daemon.stop()
            os.utime(cached, (0, 0))  # to be refreshed
            self.scratch.server.files["/tessel"] = envelope
            self.scratch.start()
            self.assertEqual(self.send().returncode, 0)  # from disk
            self.scratch.daemon.wait_for_line(line)
            with open(cached, "rb") as file:
                self.assertEqual(file.read(), good)
        self.expect_error(line)

    def test_key_file_missing(self):
        self.scratch.publish("tessel")
        os.rename(self.scratch.path("root/usr/share/zunreportingd/publicKey.der"), self.scratch.path("key"))
        self.scratch.start()
        self.assertEqual(self.send().returncode, 3)
        for line in INVALID_FETCH:
            self.expect_error(line)

    def test_key_file_garbage(self):
        self.scratch.publish("tessel")
        with open(self.scratch.path("root/usr/share/zunreportingd/publicKey.der"), "wb") as file:
            file.write(b"garbage" * 20)
        self.scratch.start()
        self.assertEqual(self.send().returncode, 3)
        for line in INVALID_FETCH:
            self.expect_error(line)

    def test_server_down(self):
        self.scratch.server.server.shutdown()
        self.scratch.server.server.server_close()
        self.scratch.start()
        self.assertEqual(self.send().returncode, 3)
        self.scratch.daemon.wait_for_line(self.resolving_failed()[0])
        for line in INVALID_FETCH:
            self.expect_error(line)

    def test_cache_file_corrupt(self):
        folder = self.scratch.path("root/home/tester/Library/Caches/zunreportingd/storebags")
        os.makedirs(folder)
        with open(os.path.join(folder, "tessel"), "wb") as file:
            file.write(b"corrupt")
        self.scratch.publish("tessel")
        self.scratch.start()
        self.assertEqual(self.send().returncode, 3)
        for line in ("fetchStorebagWithName: propertyListWithData error", "fetchStorebagWithName: Signature is missing",
                     *INVALID_FETCH):
            self.expect_error(line)

    def test_cache_folder_that_cannot_be_written_still_serves(self):
        os.makedirs(self.scratch.path("root/home/tester/Library/Caches"))
        with open(self.scratch.path("root/home/tester/Library/Caches/zunreportingd"), "wb") as file:
            file.write(b"in the way")
        self.scratch.publish("tessel")
        self.scratch.start()
        self.assertEqual(self.send(check=True).returncode, 0)
        self.expect_error("loadStorebagFromDisk: could not load storebag 'tessel' from file ")
        self.expect_error("saveStorebagToDisk: could not save storebag 'tessel' to file ")

    def test_defaults_file_corrupt_is_kept_beside(self):
        path = self.scratch.path("root/home/tester/Library/Preferences/com.vantix.zunreporting.plist")
        with open(path, "wb") as file:
            file.write(b"corrupt")
        self.scratch.start()
        self.assertEqual(self.send().returncode, 3)
        self.expect_error("com.vantix.zunreporting.plist")
        for line in INVALID_FETCH:
            self.expect_error(line)


class PostFaultsTest(ScratchTest):
    def start(self, url=None):
        entry = client_entry(post_url=url) if url else client_entry()
        self.scratch.publish(backends={"httpPost": {"clients": [entry]}})
        self.scratch.start()

    def test_server_error_disables_the_backend_for_the_session(self):
        self.scratch.server.behaviour["/post"] = 503
        self.start()
        result = self.scratch.send([EVENT, EVENT], "--batch", check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("backend httpPost disabled by server 503 return code", result.stderr)
        self.scratch.daemon.wait_for_line("postJSONMessage: backend httpPost disabled by server 503 return code")
        self.scratch.server.behaviour.clear()
        self.assertEqual(self.scratch.send([EVENT], "--batch").returncode, 0)

    def test_client_errors_of_the_server_are_no_failure(self):
        self.scratch.server.behaviour["/post"] = 404
        self.start()
        self.assertEqual(self.scratch.send([EVENT], "--batch").returncode, 0)

    def test_answer_cut_off_is_a_post_error(self):
        self.scratch.server.behaviour["/post"] = "close"
        self.start()
        self.assertEqual(self.scratch.send([EVENT], "--batch", check=False).returncode, 1)
        self.expect_error("HTTPSPostBackend(postJsonMessage): post error: ")

    def test_refused_connection_is_a_post_error(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        self.start(f"https://localhost:{port}/post")
        self.assertEqual(self.scratch.send([EVENT], "--batch", check=False).returncode, 1)
        self.expect_error("HTTPSPostBackend(postJsonMessage): post error: ")

    def test_certificate_of_a_stranger_is_never_accepted(self):
        stranger = HTTPSServer(Authority(self.scratch.folder, "stranger"))
        self.addCleanup(stranger.close)
        self.start(stranger.url + "/post")
        self.assertEqual(self.scratch.send([EVENT], "--batch", check=False).returncode, 1)
        self.expect_error("HTTPSPostBackend(postJsonMessage): post error: ")
        self.assertTrue(stranger.posts.empty())

    def test_redirect_is_followed(self):
        def redirect(handler):
            handler.send_response(307)
            handler.send_header("Location", "/elsewhere")
            handler.send_header("Content-Length", "0")
            handler.end_headers()

        self.scratch.server.behaviour["/post"] = redirect
        self.start()
        self.assertEqual(self.scratch.send([EVENT], "--batch").returncode, 0)
        self.assertEqual(self.scratch.server.next_post().path, "/post")
        self.assertEqual(self.scratch.server.next_post().path, "/elsewhere")

    def test_message_log_that_cannot_be_written_fails_nobody(self):
        os.makedirs(self.scratch.path("root/var/mobile/Library/Logs"))
        with open(self.scratch.path("root/var/mobile/Library/Logs/Quellar"), "wb") as file:
            file.write(b"in the way")
        self.scratch.set_defaults("com.vantix.diagnostics", {"DiagnosticSubmissionEnabled": True})
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(override_dnu=None)]}})
        self.scratch.start()
        self.assertEqual(self.scratch.send([EVENT]).returncode, 0)
        self.expect_error("writeToLogFile: ")


if __name__ == "__main__":
    unittest.main()
