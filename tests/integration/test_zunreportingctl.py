"""The command line client against the real daemon: what each subcommand does, says and exits with."""

import json
import os
import pty
import select
import shutil
import signal
import socket
import subprocess
import unittest

from harness import DEADLINE, ScratchTest, binary, client_entry, run

LOST = "the connection to the daemon is gone"
# Told for each aggregator that has ended: its session's last messages find nobody.
NOBODY = "sendMessageWithDictionary: Failed to get remote object proxy: the connection has ended"


class Running:
    """The tool as a process whose output is read line by line."""

    def __init__(self, test, *arguments):
        self.process = subprocess.Popen([binary("zunreportingctl"), "--address", test.scratch.address, *arguments],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        test.addCleanup(lambda: (self.process.kill(), self.process.communicate()))

    def wait_for_error_line(self, text):
        for line in self.process.stderr:
            if text in line:
                return
        raise AssertionError(f"ended without telling {text!r}")

    def next(self):
        return json.loads(self.process.stdout.readline())

    def next_event(self, category):
        """The next message of this category; sessions tell their own start and end too."""
        while True:
            message = self.next()
            if message.get("category") == category:
                return message

    def end(self, signal_number=None):
        """The exit code and the rest of what was said."""
        if signal_number is not None:
            self.process.send_signal(signal_number)
        output, errors = self.process.communicate(timeout=DEADLINE)
        return self.process.returncode, output, errors


class CtlTest(ScratchTest):
    def ctl(self, *arguments, **options):
        return run(binary("zunreportingctl"), "--address", self.scratch.address, *arguments, check=False, **options)

    def assert_exit(self, code, result):
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return result

    def file(self, name, content="a log\n"):
        path = self.scratch.path(name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        return path

    def publish_everything(self):
        dead = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        dead.bind(("127.0.0.1", 0))
        self.addCleanup(dead.close)
        self.scratch.publish(backends={
            "httpPost": {"clients": [client_entry()]},
            "uploadServer": {"post_url": self.scratch.server.url + "/upload"},
            "dashboard": {"ip": "127.0.0.1", "port": dead.getsockname()[1],
                          "post_url": self.scratch.server.url + "/logs"}})
        self.answer("/upload", b'{"status": "success"}')
        self.answer("/logs", b"https://logs.example/1")

    def answer(self, path, body, status=200):
        self.scratch.server.behaviour[path] = lambda handler: handler.answer(status, body)

    def posts_to(self, path, count):
        """The first posts to this path; others are let go."""
        found = []
        while len(found) < count:
            post = self.scratch.server.next_post()
            if post.path.split("?")[0] == path:
                found.append(post)
        return found


class CommandLineTest(CtlTest):
    SESSION = ("send", "watch", "upload", "upload-logs", "flush")

    def test_every_subcommand_has_help_with_its_exit_codes(self):
        for arguments in (*((name,) for name in self.SESSION), ("shared",)):
            result = self.assert_exit(0, self.ctl(*arguments, "--help"))
            self.assertRegex(result.stdout, r"Exit codes: 0 [^;]*, 2 wrong usage", arguments)
        for arguments in (*((name,) for name in self.SESSION), ("shared", "set"), ("shared", "remove")):
            result = self.assert_exit(0, self.ctl(*arguments, "--help"))
            self.assertIn("--parent TOKEN:LEVEL", result.stdout)

    def test_wrong_usage_exits_with_2_and_says_what_is_wrong(self):
        for arguments, text in (((), "subcommand is required"), (("nonsense",), "subcommand is required"),
                                (("upload",), "FILE"),
                                (("shared",), "subcommand is required"), (("shared", "set", "key"), "VALUE"),
                                (("shared", "set", "", "value", "--parent", "t:0"), "KEY: must not be empty"),
                                (("shared", "remove", "", "--parent", "t:0"), "KEY: must not be empty"),
                                (("shared", "set", "key", "value"), "--parent TOKEN:LEVEL"),
                                (("shared", "set", "key", "null", "--parent", "t:0"), "null is no value"),
                                (("watch", "--count", "0"), "--count"), (("watch", "--count", "-1"), "--count"),
                                (("watch", "--count", "4294967296"), "--count"),
                                (("watch", "--timeout", "0"), "--timeout"),
                                (("watch", "--timeout", "nan"), "--timeout"),
                                (("watch", "--timeout", "soon"), "--timeout"),
                                (("watch", "--timeout", "1e99"), "--timeout"),
                                (("send", "--parent", "t:0", "--hierarchy-level", "1"), "--parent")):
            result = self.assert_exit(2, self.ctl(*arguments))
            self.assertIn(text, result.stdout + result.stderr, arguments)

    def test_parent_must_be_a_token_and_a_level(self):
        for text in ("", ":", "token", "token:", ":1", "token:x", "token:-1", "token:1.5", "token:99999999999"):
            for name in self.SESSION:
                files = ("file",) if name == "upload" else ()
                result = self.assert_exit(2, self.ctl(name, "--parent", text, *files))
                self.assertIn("--parent", result.stdout + result.stderr)

    def test_without_a_daemon_every_subcommand_exits_with_3(self):
        for arguments in (*((name,) for name in ("send", "watch", "upload-logs", "flush")), ("upload", "file"),
                          ("shared", "set", "key", "value", "--parent", "t:0")):
            result = self.assert_exit(3, self.ctl(*arguments, input=""))
            self.assertIn("cannot connect to " + self.scratch.address, result.stderr)
            self.assertEqual(result.stdout, "")

    def test_without_entitlement_or_storebag_there_is_no_session(self):
        self.scratch.start()
        self.assertIn("no storebag", self.assert_exit(3, self.ctl("flush")).stderr)
        self.expect_error("fetchStorebagWithName: Signature is missing")
        self.expect_error("Could not fetch storebag for client type 7")
        self.expect_error("Unable to fetch storebag for client type 7")
        self.scratch.entitle()
        result = self.assert_exit(3, self.ctl("flush"))
        self.assertIn("is this program entitled to report?", result.stderr)


class SendAndFlushTest(CtlTest):
    def test_parent_places_the_session_in_its_hierarchy(self):
        self.scratch.publish()
        self.scratch.start()
        self.scratch.send([{"category": 2, "type": 7}], "--parent", "family:0")
        self.scratch.daemon.wait_for_line("to list for hierarchyToken family with hierarchyLevel 0")

    def test_lines_that_are_no_events_are_told_and_the_others_are_sent(self):
        self.scratch.publish()
        self.scratch.start()
        lines = ['{"category": 2, "type": 1}', "nonsense", '{"category": 70000, "type": 1}', "",
                 '{"category": 2, "type": 2}']
        result = self.assert_exit(1, self.ctl("send", "--client-name", "tester", input="\n".join(lines)))
        self.assertEqual(result.stdout, "sent 2 events, 2 failed\n")
        self.assertIn("line 2: not JSON", result.stderr)
        self.assertIn('line 3: "category" must be', result.stderr)

    def test_flush_posts_what_the_session_holds(self):
        self.scratch.publish()
        self.scratch.start()
        result = self.assert_exit(0, self.ctl("flush", "--batch"))
        self.assertRegex(result.stdout, "^flush: .")
        self.assertEqual([event["_status"] for event in self.scratch.server.next_post().events], [0])

    def test_flush_without_anything_to_post_is_no_failure(self):
        self.scratch.publish()
        self.scratch.start()
        self.assertIn("Nothing to flush", self.assert_exit(0, self.ctl("flush")).stdout)

    def test_flush_that_the_server_refuses_exits_with_1(self):
        self.scratch.publish()
        self.scratch.server.behaviour["/post"] = 500
        self.scratch.start()
        result = self.assert_exit(1, self.ctl("flush", "--batch"))
        self.assertIn("zunreportingctl: flush: ", result.stderr)


class WatchTest(CtlTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish()
        self.scratch.start()
        self.expect_error(NOBODY)

    def watch(self, *options):
        watcher = Running(self, "watch", *options)
        watcher.wait_for_error_line("watching")
        return watcher

    def send_as_child(self, *options, **payload):
        return self.scratch.send([{"category": 2, "type": 9, "payload": payload}], "--parent", "family:1",
                                 "--session-id", "77", *options)

    def test_messages_of_a_child_are_printed_as_lines_of_JSON(self):
        watcher = self.watch("--parent", "family:0")
        self.send_as_child(text="h\u00e4h\n\"", number=-3, real=2.5, flag=True, list=[1, {"a": "b"}], empty={})
        self.expect_error("Textweave unable to handle key: list")  # the HTTPS backend takes no arrays
        self.expect_error("Textweave unable to handle key: empty")
        message = watcher.next_event(2)
        self.assertEqual(list(message), ["sessionInfo", "timestamp", "category", "type", "payload"])
        self.assertEqual(message["type"], 9)
        self.assertEqual(message["sessionInfo"]["sessionInfoSessionID"], 77)
        self.assertEqual(message["sessionInfo"]["sessionInfoHierarchyToken"],
                         {"hierarchyTokenTokenID": "family", "hierarchyTokenLevel": 1})
        self.assertGreater(message["timestamp"], 1.7e9)
        self.assertEqual(message["payload"],
                         {"text": "h\u00e4h\n\"", "number": -3, "real": 2.5, "flag": True, "list": [1, {"a": "b"}],
                          "empty": {}, "userInfoClientName": "tester", "userInfoServiceName": "bench"})
        code, _, errors = watcher.end(signal.SIGTERM)
        self.assertEqual((code, errors), (0, ""))
        self.scratch.daemon.wait_for_line("finishSessionGracefully: Session 1 has been finished gracefully")

    def test_message_without_payload_has_none_in_its_line(self):
        watcher = self.watch("--parent", "family:0")
        self.scratch.send([{"category": 2, "type": 9}], "--parent", "family:1")
        self.assertNotIn("payload", watcher.next_event(2))
        self.assertEqual(watcher.end(signal.SIGINT)[0], 0)

    def test_own_messages_are_printed_too(self):
        watcher = self.watch("--session-id", "5")
        message = watcher.next()
        self.assertEqual((message["category"], message["type"]), (0, 0))
        self.assertEqual(message["sessionInfo"]["sessionInfoSessionID"], 5)
        self.assertEqual(watcher.end(signal.SIGTERM)[0], 0)

    def test_count_ends_after_so_many_messages(self):
        watcher = self.watch("--parent", "family:0", "--count", "3")  # its own start is the first
        self.send_as_child(number=1)
        code, output, errors = watcher.end()
        self.assertEqual((code, errors), (0, ""))
        self.assertEqual([(m["category"], m["type"]) for m in map(json.loads, output.splitlines())],
                         [(0, 0), (0, 0), (2, 9)])

    def test_timeout_ends_and_counts_what_is_missing(self):
        self.assert_exit(0, self.ctl("watch", "--timeout", "0.05"))
        result = self.assert_exit(1, self.ctl("watch", "--timeout", "0.05", "--count", "1000"))
        self.assertIn("1 of 1000 messages came", result.stderr)

    def test_end_of_aggregation_is_the_last_line(self):
        watcher = self.watch("--parent", "family:1")
        upper = self.watch("--parent", "family:0")  # aggregates for all below it from now on
        code, output, errors = watcher.end()
        self.assertEqual((code, errors), (0, ""))
        self.assertEqual(json.loads(output.splitlines()[-1]), {"endOfAggregation": True})
        self.assertEqual(upper.end(signal.SIGTERM)[0], 0)

    def test_daemon_that_goes_away_exits_with_3(self):
        watcher = self.watch()
        self.assertEqual(self.scratch.daemon.stop(), 0)
        code, _, errors = watcher.end()
        self.assertEqual(code, 3)
        self.assertIn(LOST, errors)

    def test_daemon_that_is_killed_exits_with_3(self):
        watcher = self.watch()
        self.scratch.daemon.kill()
        self.expected_errors.remove(NOBODY)
        code, _, errors = watcher.end()
        self.assertEqual(code, 3)
        self.assertIn(LOST, errors)

    def test_reader_that_goes_away_ends_it(self):
        watcher = self.watch("--parent", "family:0")
        watcher.process.stdout.close()
        self.send_as_child(number=1)
        watcher.wait_for_error_line("cannot write to standard output")
        self.assertEqual(watcher.process.wait(DEADLINE), 1)


class UploadTest(CtlTest):
    def setUp(self):
        super().setUp()
        self.publish_everything()

    def expect_failed_upload(self, path):
        self.expect_error("uploadFileWithURL: File upload failed for " + path)

    def test_files_are_uploaded_and_removed(self):
        self.scratch.start()
        paths = [self.file("one"), self.file("a b\u00e4%20#?.log", "second\n")]
        result = self.assert_exit(0, self.ctl("upload", *paths))
        self.assertEqual(result.stdout, "".join(f"{path}: uploaded and removed\n" for path in paths))
        self.assertEqual(result.stderr, "")
        posts = self.posts_to("/upload", 2)
        self.assertEqual([post.body for post in posts], [b"a log\n", b"second\n"])
        self.assertIn("filename=a%20b%C3%A4%2520%23", posts[1].path)
        for path in paths:
            self.assertFalse(os.path.exists(path))

    def test_relative_paths_are_taken_from_the_working_directory(self):
        self.scratch.start()
        self.file("here")
        result = self.assert_exit(0, self.ctl("upload", "here", cwd=self.scratch.folder))
        self.assertEqual(result.stdout, "here: uploaded and removed\n")

    def test_every_file_has_its_line_and_a_failed_one_stops_nothing(self):
        self.scratch.start()
        good, empty, target = self.file("good"), self.file("empty", ""), self.file("target")
        link, fifo = self.scratch.path("link"), self.scratch.path("fifo")
        os.symlink(target, link)
        os.mkfifo(fifo)
        missing, odd = self.scratch.path("missing"), self.scratch.path("\033[2Jmiss\ning")
        result = self.assert_exit(1, self.ctl("upload", missing, odd, self.scratch.folder, link, fifo, empty, good))
        self.assertEqual(result.stdout.splitlines(), [
            f"{missing}: failed: No such file or directory",
            f"{self.scratch.path('?[2Jmiss?ing')}: failed: No such file or directory",
            f"{self.scratch.folder}: failed: not a regular file",
            f"{link}: failed: a symbolic link, which is not followed",
            f"{fifo}: failed: not a regular file",
            f"{empty}: failed: the daemon could not upload it, see its log",
            f"{good}: uploaded and removed"])
        self.assertTrue(os.path.exists(target))
        self.expect_error("UploadBackend(uploadFileAtPath): Input file is empty")
        self.expect_failed_upload(empty)

    @unittest.skipIf(os.getuid() != 0, "only root can become somebody who may not read a file")
    def test_unreadable_file_is_told_by_its_reason(self):
        self.scratch.entitle({"user": 4711, "entitlements": {"com.vantix.private.zunreportingd": True}})
        os.chmod(self.scratch.folder, 0o755)
        self.scratch.start()
        path = self.file("secret")
        os.chmod(path, 0o600)
        # A copy of the program: others need not be let into the build folder.
        program = shutil.copy(binary("zunreportingctl"), self.scratch.folder)
        result = self.assert_exit(1, run(program, "--address", self.scratch.address, "upload", path, check=False,
                                         user=4711, group=4711, extra_groups=[], cwd="/"))
        self.assertEqual(result.stdout, f"{path}: failed: Permission denied\n")

    def test_upload_that_the_server_does_not_confirm_keeps_the_file_and_exits_with_1(self):
        self.answer("/upload", b"try again later")
        self.scratch.start()
        path = self.file("log")
        result = self.assert_exit(1, self.ctl("upload", path))
        self.assertEqual(result.stdout, f"{path}: failed: sent, but not confirmed by the server; the file is kept\n")
        self.assertTrue(os.path.exists(path))

    def test_session_without_upload_backend_uploads_nothing(self):
        self.scratch.publish()
        self.scratch.start()
        path = self.file("log")
        result = self.assert_exit(1, self.ctl("upload", path))
        self.assertEqual(result.stdout, f"{path}: failed: the daemon could not upload it, see its log\n")
        self.expect_failed_upload(path)

    def test_daemon_that_goes_away_during_an_upload_ends_it_and_the_rest_is_not_tried(self):
        self.scratch.server.behaviour["/upload"] = "hang"
        self.scratch.start()
        paths = [self.file("one"), self.file("two")]
        uploading = Running(self, "upload", *paths)
        self.posts_to("/upload", 1)
        self.scratch.daemon.kill()
        code, output, _ = uploading.end()
        self.assertEqual(code, 3, output)
        first, second = output.splitlines()
        self.assertTrue(first.startswith(f"{paths[0]}: failed: uploadFileAtPath: "), first)
        self.assertEqual(second, f"{paths[1]}: failed: not tried")
        self.assertTrue(os.path.exists(paths[0]))

    def test_progress_is_shown_on_a_terminal(self):
        self.scratch.start()
        path = self.file("log", "x" * 2_500_000)
        try:
            terminal, far_end = pty.openpty()
        except OSError as error:
            self.skipTest(f"no terminal can be had here: {error}")
        self.addCleanup(os.close, terminal)
        result = subprocess.run([binary("zunreportingctl"), "--address", self.scratch.address, "upload", path],
                                stdout=subprocess.PIPE, stderr=far_end, timeout=DEADLINE, check=False)
        os.close(far_end)
        shown = b""
        while select.select([terminal], [], [], 0)[0]:
            try:
                shown += os.read(terminal, 65536)
            except OSError:  # the far end is closed and all is read
                break
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout.decode(), f"{path}: uploaded and removed\n")
        self.assertTrue(shown.startswith(f"\r[1/1] {path} (2.5 MB), 0 s".encode()), shown)
        self.assertTrue(shown.endswith(b"\r\033[K"), shown)


class UploadLogsTest(CtlTest):
    def setUp(self):
        super().setUp()
        self.publish_everything()

    def upload_logs(self, lines, *options):
        return self.ctl("upload-logs", *options, input="".join(line + "\n" for line in lines))

    def test_records_go_in_one_archive(self):
        self.scratch.start()
        result = self.assert_exit(0, self.upload_logs(['{"line": "one"}', '"two"', "", "[3]"]))
        self.assertEqual(result.stdout, "uploaded 3 records, 0 failed\n")
        (post,) = self.posts_to("/logs", 1)
        self.assertEqual(post.headers["Content-Type"], "application/octet-stream")
        self.assertEqual(post.body[:8], b"bplist00")
        for text in (b"line", b"one", b"two"):
            self.assertIn(text, post.body)
        self.scratch.daemon.wait_for_line(
            "DashboardBackend(uploadLogData): Log data uploaded to https://logs.example/1")

    def test_lines_that_are_no_records_are_told_and_the_others_are_uploaded(self):
        self.scratch.start()
        result = self.assert_exit(1, self.upload_logs(['{"a":', "null", "x" * (1 << 20) + "y", '{"a": 1}']))
        self.assertEqual(result.stdout, "uploaded 1 records, 3 failed\n")
        for text in ("line 1: not JSON", "line 2: null is no record", "line 3: longer than 1048576 bytes"):
            self.assertIn("zunreportingctl: " + text, result.stderr)

    def test_records_beyond_one_message_go_in_several_archives(self):
        self.scratch.start()
        records = [json.dumps({"number": number, "text": "x" * 300_000}) for number in range(7)]
        result = self.assert_exit(0, self.upload_logs(records))
        self.assertEqual(result.stdout, "uploaded 7 records, 0 failed\n")
        self.assertEqual(len(self.posts_to("/logs", 3)), 3)

    def test_many_small_values_stay_within_a_message_too(self):
        self.scratch.start()
        record = json.dumps([[1, [], {}, "a"]] * 1000)
        result = self.assert_exit(0, self.upload_logs([record] * 20))
        self.assertEqual(result.stdout, "uploaded 20 records, 0 failed\n")

    def test_record_too_large_for_a_message_is_refused(self):
        self.scratch.start()
        result = self.assert_exit(1, self.upload_logs([json.dumps([1] * 300_000), "1"]))
        self.assertEqual(result.stdout, "uploaded 1 records, 1 failed\n")
        self.assertIn("line 1: too large for one message", result.stderr)

    def test_nothing_to_upload_is_no_failure(self):
        self.scratch.start()
        self.assertEqual(self.assert_exit(0, self.upload_logs([])).stdout, "uploaded 0 records, 0 failed\n")

    def test_server_that_fails_and_session_without_dashboard_exit_with_1(self):
        self.scratch.server.behaviour["/logs"] = "close"
        self.scratch.start()
        result = self.assert_exit(1, self.upload_logs(["1"]))
        self.assertEqual(result.stdout, "uploaded 0 records, 1 failed\n")
        self.assertIn("1 records: the daemon could not upload them", result.stderr)
        self.expect_error("DashboardBackend(uploadLogData): Error uploading log data array")
        self.expect_error("uploadLogData: Log data array upload failed")

    def test_daemon_that_goes_away_exits_with_3(self):
        self.scratch.server.behaviour["/logs"] = "hang"
        self.scratch.start()
        uploading = Running(self, "upload-logs")
        uploading.process.stdin.write("1\n")
        uploading.process.stdin.close()
        uploading.process.stdin = None
        self.posts_to("/logs", 1)
        self.scratch.daemon.kill()
        code, output, errors = uploading.end()
        self.assertEqual((code, output), (3, "uploaded 0 records, 1 failed\n"), errors)


class SharedTest(CtlTest):
    def setUp(self):
        super().setUp()
        self.scratch.publish()
        self.scratch.start()

    def shared_record(self):
        """What an event of the hierarchy carries of the shared data."""
        self.scratch.send([{"category": 2, "type": 9, "payload": {"own": 1}}], "--parent", "family:0")
        while True:
            for event in self.scratch.server.next_post().events:
                if event["_method"] == 2:
                    return {key: value for key, value in event.items()
                            if not key.startswith(("_", "userInfo")) and key not in ("own", "eventTime")}

    def shared(self, *arguments):
        return self.assert_exit(0, self.ctl("shared", *arguments, "--parent", "family:0"))

    def test_entries_accompany_the_events_of_the_hierarchy_until_removed(self):
        self.shared("set", "number", "42")
        self.shared("set", "text", "not { JSON")
        self.shared("set", "flag", "true")
        self.assertEqual(self.shared_record(), {"number": 42, "text": "not { JSON", "flag": True})
        self.shared("set", "number", "-1.5")
        self.shared("remove", "text")
        self.shared("remove", "never there")
        self.assertEqual(self.shared_record(), {"number": -1.5, "flag": True})

    def test_other_hierarchies_see_nothing(self):
        self.assert_exit(0, self.ctl("shared", "set", "key", "value", "--parent", "others:0"))
        self.assertEqual(self.shared_record(), {})

    def test_text_that_cannot_be_sent_is_told(self):
        result = run(binary("zunreportingctl"), "--address", self.scratch.address, "shared", "set", "key", b"\xff",
                     "--parent", "family:0", check=False)
        self.assert_exit(1, result)
        self.assertIn("cannot encode the arguments", result.stderr)

    def test_value_that_the_daemon_does_not_take_is_told(self):
        result = self.assert_exit(1, self.ctl("shared", "set", "key", "[" * 40 + "]" * 40, "--parent", "family:0"))
        self.assertIn("updateSharedDataForKey: ", result.stderr)
        self.expect_error("")


if __name__ == "__main__":
    unittest.main()
