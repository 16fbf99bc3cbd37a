"""Clients hand files over by descriptor: what a token proves, and what the daemon does in whose name.

The clients are GLib's, in processes of their own, so that they can be other users.
"""

import json
import os
import pathlib
import signal
import socket
import subprocess
import unittest

from harness import ScratchTest, wait_until

SOMEBODY = 4711

# Reads commands from its input, one JSON list a line, and answers each with a line.
CLIENT = r"""
import json, os, sys
from gi.repository import Gio, GLib

connection = Gio.DBusConnection.new_for_address_sync(
    sys.argv[1], Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

def call(interface, member, arguments, descriptors=()):
    answer, _ = connection.call_with_unix_fd_list_sync(
        None, "/com/vantix/zunreportingd/session", "com.vantix.zunreportingd." + interface, member, arguments, None,
        Gio.DBusCallFlags.NONE, 60000, Gio.UnixFDList.new_from_array(list(descriptors)), None)
    return answer.unpack()

def session(member, signature=None, *arguments):
    return call("ClientSessionInterface", member, GLib.Variant(signature, arguments) if signature else None)

V = GLib.Variant
session("setSessionInfo", "(a{sv}aa{sv}asb)",
        {"sessionInfoSessionID": V("u", 7), "sessionInfoClientType": V("i", 7),
         "sessionInfoRequireUserInfo": V("b", True)},
        [{"userInfoClientName": V("s", "glib"), "userInfoServiceName": V("s", "bench")}], [], False)
print(json.dumps(session("startConfigWithCompletionHandler")), flush=True)
for line in sys.stdin:
    what, path, argument = json.loads(line)
    try:
        if what == "issue":
            descriptors = [os.open(path, argument)]  # the list that is sent takes them
            answer = bytes(call("FileAccess", "issueExtension", V("(h)", (0,)), descriptors)[0]).decode("latin-1")
        else:
            answer = session("uploadFileAtPath", "(say)", "file://" + path, argument.encode("latin-1"))[0]
    except GLib.Error as failure:
        answer = Gio.dbus_error_get_remote_error(failure)
    print(json.dumps(answer), flush=True)
"""


class Client:
    """A client process, of `user` where one is given."""

    def __init__(self, test, user=None):
        identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
        self.process = subprocess.Popen(["/usr/bin/python3", "-c", CLIENT, test.scratch.address], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, cwd="/", **identity)
        test.addCleanup(lambda: (self.process.kill(), self.process.communicate()))
        self.backends = json.loads(self.process.stdout.readline())

    def ask(self, what, path, argument):
        self.begin(what, path, argument)
        return json.loads(self.process.stdout.readline())

    def begin(self, what, path, argument):
        self.process.stdin.write(json.dumps([what, str(path), argument]) + "\n")
        self.process.stdin.flush()

    def issue(self, path, flags=os.O_RDONLY):
        return self.ask("issue", path, flags)

    def upload(self, path, token=None):
        return self.ask("upload", path, self.issue(path) if token is None else token)


class FileAccessTest(ScratchTest):
    NOT_A_FILE = "UploadBackend(uploadFileAtPath): Only upload a regular file."
    FAILED = "uploadFileWithURL: File upload failed for "

    def setUp(self):
        super().setUp()
        self.scratch.publish(backends={"uploadServer": {"post_url": self.scratch.server.url + "/upload"}})
        self.answer_uploads(b'{"status": "success"}')

    def answer_uploads(self, body):
        self.scratch.server.behaviour["/upload"] = lambda handler: handler.answer(200, body)

    def file(self, name, content=b"a log\n"):
        path = pathlib.Path(self.scratch.path(name))
        path.write_bytes(content)
        return path

    def expect_refusal(self, path):
        self.expect_error(self.NOT_A_FILE)
        self.expect_error(f"{self.FAILED}{path}")

    def test_a_file_that_was_handed_over_is_uploaded_and_removed(self):
        self.scratch.start()
        client = Client(self)
        path = self.file("a log")
        self.assertTrue(client.upload(path))
        post = self.scratch.server.next_post()
        self.assertEqual(post.body, b"a log\n")
        self.assertIn("filename=a%20log.gz", post.path)
        self.assertFalse(path.exists())

    def test_no_forged_and_no_borrowed_token_gives_access(self):
        self.scratch.start()
        path = self.file("log")
        client, other = Client(self), Client(self)
        borrowed = other.issue(path)
        for token in ("", "\0", "0" * 32 + "\0", borrowed, "x" * 100_000):
            self.assertIs(client.upload(path, token), False)
        self.scratch.daemon.wait_for_line("The connection has no such token", 5)
        self.expect_refusal(path)
        token = client.issue(path)
        self.assertIs(client.upload(path, token), True)
        self.assertFalse(path.exists())
        path.write_bytes(b"again")
        self.assertIs(client.upload(path, token), False)  # it has served
        self.assertIs(other.upload(path, borrowed), False)  # the file that it stood for is gone
        self.assertEqual(path.read_bytes(), b"again")
        self.assertEqual(len(self.scratch.server.all_posts()), 1)

    def test_a_path_swapped_after_the_token_was_issued_gives_nothing_away(self):
        self.scratch.start()
        secret = self.file("secret", b"not for the client")
        path = self.file("log")
        client = Client(self)
        for swap in (lambda: path.symlink_to(secret), lambda: secret.rename(path)):
            token = client.issue(path)
            path.unlink()
            swap()
            self.assertIs(client.upload(path, token), False)
            self.expect_refusal(path)
            content = path.read_bytes()
            self.assertEqual(content, b"not for the client")
            if path.is_symlink():
                path.unlink()
                path.write_bytes(b"a log\n")
        self.assertEqual(self.scratch.server.all_posts(), [])

    def test_what_is_no_regular_file_is_refused_without_being_opened(self):
        self.scratch.start()
        client = Client(self)
        fifo = self.scratch.path("fifo")
        os.mkfifo(fifo)
        for path, flags in ((fifo, os.O_RDWR), (self.scratch.path("root"), os.O_RDONLY), ("/dev/zero", os.O_RDONLY),
                            ("/proc/version", os.O_RDONLY)):
            self.assertIs(client.upload(path, client.issue(path, flags)), False)
            self.expect_refusal(path)
        self.assertEqual(client.issue(self.file("log"), os.O_WRONLY), "org.freedesktop.DBus.Error.AccessDenied")
        self.assertEqual(client.issue(self.file("log"), os.O_PATH), "org.freedesktop.DBus.Error.AccessDenied")

    @unittest.skipIf(os.geteuid() != 0, "needs to be root, to be two users")
    def test_a_daemon_of_root_removes_what_its_client_could_remove_and_nothing_else(self):
        os.chmod(self.scratch.folder, 0o755)
        self.scratch.entitle({"user": SOMEBODY, "entitlements": {"com.vantix.private.zunreportingd": True}})
        folders = {}
        for name, owner, mode in (("own", SOMEBODY, 0o700), ("roots", 0, 0o755), ("sticky", 0, 0o1777)):
            folder = pathlib.Path(self.scratch.path(name))
            folder.mkdir()
            os.chown(folder, owner, owner)
            os.chmod(folder, mode)
            folders[name] = folder
        self.scratch.start()
        client = Client(self, SOMEBODY)
        for name, error in (("own", None), ("roots", "Permission denied"), ("sticky", "Operation not permitted")):
            path = self.file(f"{name}/log")
            path.chmod(0o644)
            self.assertIs(client.upload(path), True)
            self.assertEqual(self.scratch.server.next_post().body, b"a log\n")
            self.assertEqual(path.exists(), error is not None, name)
            if error:
                self.scratch.daemon.wait_for_line(f"The uploaded file {path} stays: {error}")
        # The daemon is itself again: another client's upload, of root's own file.
        self.scratch.entitle({"user": 0, "entitlements": {"com.vantix.private.zunreportingd": True}})
        self.assertIs(Client(self).upload(folders["roots"] / "log"), True)
        self.assertFalse((folders["roots"] / "log").exists())

    # --- The end, while a client's thread waits for the server -------------------------

    def upload_that_hangs(self, *options):
        self.scratch.server.behaviour["/upload"] = "hang"
        self.scratch.start(*options)
        client = Client(self)
        path = self.file("log")
        client.begin("upload", path, client.issue(path))
        self.assertEqual(self.scratch.server.next_post().body, b"a log\n")
        return client, path

    def test_termination_waits_for_an_upload_no_longer_than_the_grace(self):
        _, path = self.upload_that_hangs("--stop-grace", "1")
        self.expect_error("main: stopped with 1 connections, 1 transfers,")
        self.assertEqual(self.scratch.daemon.stop(), 0)
        self.assertTrue(path.exists())

    def test_termination_lets_an_upload_finish_within_the_grace(self):
        _, path = self.upload_that_hangs("--stop-grace", "3600")
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        wait_until(lambda: not self.connects(), "the daemon stops listening")
        self.assertIsNone(self.scratch.daemon.process.poll())
        self.scratch.server.released.set()
        self.expect_error("UploadBackend(uploadFileAtPath): post ")
        self.assertEqual(self.scratch.daemon.wait(), 0)
        self.assertTrue(path.exists())

    def connects(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as peer:
            return peer.connect_ex(self.scratch.socket) == 0

    def test_second_termination_signal_does_not_wait_for_an_upload(self):
        self.upload_that_hangs("--stop-grace", "3600")
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        wait_until(lambda: not self.connects(), "the daemon stops listening")
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.scratch.daemon.wait(), 1)

    def test_client_gone_during_its_upload_ends_its_session_alone(self):
        client, path = self.upload_that_hangs()
        client.process.kill()
        self.assertEqual(len(Client(self).issue(path)), 33)  # others are served meanwhile
        self.expect_error("UploadBackend(uploadFileAtPath): post ")
        self.scratch.server.released.set()
        self.scratch.daemon.wait_for_line("UploadBackend(uploadFileAtPath): post ")


if __name__ == "__main__":
    unittest.main()
