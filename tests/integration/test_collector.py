"""The server to develop against, as a process."""

import gzip
import http.client
import json
import os
import plistlib
import resource
import signal
import socket
import ssl
import struct
import subprocess
import tempfile
import threading
import time
import unittest

from harness import DEADLINE, Authority, Collector, binary, wait_until

UPLOAD = "/upload?uuid=D1&sequence=5&description=a%20log%20(Uploaded%20by%20Qel)&raw=true&filename="
POST = json.dumps({"postTime": 1.5, "clientId": "x", "events": [{"a": 1}, {"b": "\u00e4"}]}).encode()


def with_pending_stop():
    """The program starts with a SIGTERM that it has not yet been told of."""
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    os.kill(os.getpid(), signal.SIGTERM)


class CollectorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zun-collector-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.authority = Authority(self.folder)

    def collect(self, **changes):
        options = {"cert": self.authority.certificate, "key": self.authority.key, "storebags": self.folder}
        options.update(changes)
        arguments = [text for name, value in options.items() for text in (f"--{name}", value)]
        return subprocess.run([binary("zuncollector"), *arguments], capture_output=True, text=True,
                              timeout=DEADLINE, check=False, preexec_fn=with_pending_stop)

    def test_stop_that_comes_before_it_listens_still_ends_it(self):
        result = self.collect()
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("posts 0\n", result.stdout)

    def test_output_that_cannot_be_written_is_told_at_the_start(self):
        result = self.collect(output=os.path.join(self.folder, "missing", "events"))
        self.assertEqual(result.returncode, 1)
        self.assertIn("zuncollector: cannot write to", result.stderr)

    def test_key_that_does_not_belong_to_the_certificate_is_told_at_the_start(self):
        result = self.collect(key=Authority(self.folder, "other").key)
        self.assertEqual(result.returncode, 1)
        self.assertIn("zuncollector: cannot use the certificate", result.stderr)

    def test_dashboard_address_that_is_none_is_told_at_the_start(self):
        result = self.collect(host="no.such.host.invalid", **{"dashboard-port": "0"})
        self.assertEqual(result.returncode, 1)
        self.assertIn("is no IPv4 address", result.stderr)

    def test_dashboard_port_that_is_taken_is_told_at_the_start(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("127.0.0.1", 0))
            result = self.collect(**{"dashboard-port": str(taken.getsockname()[1])})
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot receive datagrams at 127.0.0.1:", result.stderr)


class ServingTest(unittest.TestCase):
    """A collector that serves, and what to send it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zun-collector-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.authority = Authority(self.folder)

    def serve(self, *options, **popen):
        self.collector = Collector(self.folder, self.authority, *options, **popen)
        self.addCleanup(self.collector.close)
        return self.collector

    def connect(self):
        context = ssl.create_default_context(cafile=self.authority.ca)
        # By address: a machine need not have a name for itself.
        port = int(self.collector.url.rpartition(":")[2])
        connection = http.client.HTTPSConnection("127.0.0.1", port, timeout=DEADLINE, context=context)
        self.addCleanup(connection.close)
        return connection

    def request(self, method, target, body=None, headers=None, connection=None):
        own = connection or self.connect()
        own.request(method, target, body, headers or {})
        answer = own.getresponse()
        content = answer.read()
        if connection is None:  # an idle one would hold up the collector's end
            own.close()
        return answer.status, content

    def upload(self, name, content, **headers):
        headers = {"Content-Type": "application/octet-stream", "Content-Encoding": "gzip"} | headers
        return self.request("POST", UPLOAD + name, gzip.compress(content), headers)

    def kept(self):
        """Uploaded files by name, also unfinished ones."""
        files = {}
        for name in os.listdir(self.collector.uploads):
            with open(os.path.join(self.collector.uploads, name), "rb") as file:
                files[name] = file.read()
        return files


class PostTest(ServingTest):
    # Whoever reads posts need not know of anything else.
    def test_records_of_posts_are_kept_as_they_came(self):
        collector = self.serve()
        self.assertEqual(self.request("POST", "/events", POST), (200, b"{}"))
        self.assertEqual(collector.records(), [{"a": 1}, {"b": "\u00e4"}])
        summary = collector.stop()
        self.assertEqual((summary["posts"], summary["events"], summary["refused"]), (1, 2, 0))

    def test_post_that_a_full_disk_cuts_leaves_nothing_behind(self):
        def small_files():
            resource.setrlimit(resource.RLIMIT_FSIZE, (1000, resource.RLIM_INFINITY))

        collector = self.serve(preexec_fn=small_files)
        self.assertEqual(self.request("POST", "/events", POST)[0], 200)
        large = json.dumps({"postTime": 1, "clientId": "x", "events": [{"n": n} for n in range(500)]})
        status, text = self.request("POST", "/events", large)
        self.assertEqual(status, 400)
        self.assertIn(b"File too large", text)
        self.assertEqual(collector.records(), [{"a": 1}, {"b": "\u00e4"}])
        self.assertEqual(self.request("POST", "/events", POST)[0], 200)
        self.assertEqual(len(collector.records()), 4)
        summary = collector.stop()
        self.assertEqual((summary["posts"], summary["refused"]), (2, 1))


class DashboardServerTest(ServingTest):
    def setUp(self):
        super().setUp()
        self.peer = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.peer.close)
        self.peer.settimeout(DEADLINE)
        self.peer.bind(("127.0.0.1", 0))

    @staticmethod
    def datagram(number, text=" a=1", flags=1, seconds=1000):
        return struct.pack(">BBBBIIHHHH40sHH", 1, 7, 1, 30, seconds, ~77 & 0xFFFFFFFF, ~3 & 0xFFFF,
                           ~(64 + len(text)) & 0xFFFF, 901, 2, b"device", number, flags) + text.encode()

    def send(self, *datagrams):
        for datagram in datagrams:
            self.peer.sendto(datagram, self.collector.dashboard)

    def received(self):
        return self.peer.recv(2000)

    def test_datagram_is_recorded_field_by_field_and_returned(self):
        collector = self.serve()
        datagram = self.datagram(8, r" a=x\=1 title=two words")
        self.send(datagram)
        self.assertEqual(self.received(), datagram)
        record, = collector.records("dashboard")
        self.assertAlmostEqual(record.pop("received"), time.time(), delta=3600)
        self.assertEqual(record, {
            "_way": "dashboard", "sender": f"127.0.0.1:{self.peer.getsockname()[1]}", "duplicate": False,
            "acknowledgement": "sent", "formatVersion": 1, "clientType": 7, "timestamp": 1000.12,
            "sessionID": 77, "clientVersion": 3, "method": 901, "respCode": 2, "deviceID": "device",
            "eventNumber": 8, "flags": 1, "reliable": True, "withoutProfile": False, "mayBeCut": False,
            "text": r" a=x\=1 title=two words", "fields": {"a": "x=1", "title": "two words"}})
        summary = collector.stop()
        self.assertEqual((summary["datagrams"], summary["datagrams-acknowledged"]), (1, 1))

    # The acknowledgement of the reliable one behind it comes first and alone.
    def test_plain_datagram_is_recorded_and_not_acknowledged(self):
        collector = self.serve()
        plain, reliable = self.datagram(1, flags=0), self.datagram(2)
        self.send(plain, reliable)
        self.assertEqual(self.received(), reliable)
        self.assertEqual([r["acknowledgement"] for r in collector.records("dashboard")], ["none", "sent"])
        self.assertEqual(collector.stop()["datagrams-acknowledged"], 1)

    def test_retransmission_is_told_from_a_new_event_of_that_number(self):
        collector = self.serve()
        self.send(self.datagram(1), self.datagram(1), self.datagram(1, seconds=2000))
        for _ in range(3):
            self.received()
        self.assertEqual([r["duplicate"] for r in collector.records("dashboard")], [False, True, False])
        self.assertEqual(collector.stop()["datagrams-duplicate"], 1)

    def test_malformed_datagrams_are_counted_and_told_and_the_next_one_is_served(self):
        collector = self.serve()
        good = self.datagram(1)
        wrong = [b"", b"x", good[:63], good[:-1], good + b"x", good[:14] + b"\0\x44" + good[16:],
                 good[:2] + b"\2" + good[3:], os.urandom(1500), b"\0" * 65507]
        self.send(*wrong, good)
        self.assertEqual(self.received(), good)
        self.assertEqual(len(collector.records()), 1)
        self.assertEqual(collector.errors().count("dashboard: malformed datagram from 127.0.0.1:"), len(wrong))
        summary = collector.stop()
        self.assertEqual((summary["datagrams"], summary["datagrams-malformed"]), (1, len(wrong)))

    def test_endless_rubbish_is_counted_without_being_told_endlessly(self):
        collector = self.serve()
        for number in range(150):
            self.send(b"rubbish")
            if number % 10 == 9:  # never more than the kernel keeps
                self.send(self.datagram(number))
                self.received()
        self.assertEqual(collector.stop()["datagrams-malformed"], 150)
        self.assertEqual(collector.errors().count("malformed datagram"), 100)
        self.assertIn("further malformed ones are only counted", collector.errors())

    def test_first_acknowledgements_are_lost_on_request(self):
        collector = self.serve("--ack-drop", "2")
        self.send(self.datagram(1), self.datagram(2), self.datagram(3))
        self.assertEqual(self.received(), self.datagram(3))
        self.assertEqual([r["acknowledgement"] for r in collector.records()], ["dropped", "dropped", "sent"])
        self.assertEqual(collector.stop()["datagrams-acknowledged"], 1)

    def test_every_second_acknowledgement_is_lost_on_request(self):
        self.serve("--ack-drop-every", "2")
        self.send(*(self.datagram(n) for n in range(1, 6)))
        self.assertEqual([self.received() for _ in range(3)], [self.datagram(n) for n in (1, 3, 5)])

    def test_chance_loses_the_same_acknowledgements_with_the_same_seed(self):
        lost = []
        for _ in range(2):
            collector = self.serve("--ack-loss", "0.5", "--seed", "11")
            self.send(*(self.datagram(n) for n in range(60)))
            records = collector.wait_for_records(60, "dashboard")
            lost.append([r["eventNumber"] for r in records if r["acknowledgement"] == "dropped"])
            collector.stop()
            os.remove(collector.output)
            os.remove(os.path.join(self.folder, "port"))
            os.remove(os.path.join(self.folder, "dashboard-port"))
        self.assertEqual(lost[0], lost[1])
        self.assertTrue(0 < len(lost[0]) < 60)

    def test_acknowledgements_are_spoilt_doubled_and_cut_on_request(self):
        self.serve("--ack-corrupt", "1", "--ack-duplicate", "--ack-bytes", "62")
        self.send(self.datagram(0x0102), self.datagram(0x0304))
        answers = [self.received() for _ in range(4)]
        spoilt = self.datagram(0x0102)[:60] + b"\xfe\xfd"
        self.assertEqual(answers, [spoilt, spoilt] + [self.datagram(0x0304)[:62]] * 2)
        self.assertEqual(self.collector.stop()["datagrams-acknowledged"], 1)

    # All are recorded while the first acknowledgement still waits for its time.
    def test_acknowledgements_are_late_on_request(self):
        collector = self.serve("--ack-delay", "700")
        self.send(*(self.datagram(n) for n in range(3)))
        collector.wait_for_records(3, "dashboard")
        self.assertEqual([self.received() for _ in range(3)], [self.datagram(n) for n in range(3)])
        self.assertGreaterEqual(time.time() - collector.records()[0]["received"], 0.65)

    def test_silent_dashboard_records_and_answers_nothing(self):
        collector = self.serve("--dashboard-silent")
        self.send(self.datagram(1))
        self.assertEqual(collector.wait_for_records(1, "dashboard")[0]["acknowledgement"], "dropped")
        self.assertEqual(collector.stop()["datagrams-acknowledged"], 0)
        self.peer.setblocking(False)
        self.assertRaises(BlockingIOError, self.received)

    # The sender keeps it, and it comes again.
    def test_event_that_cannot_be_recorded_is_not_acknowledged(self):
        def small_files():
            resource.setrlimit(resource.RLIMIT_FSIZE, (500, resource.RLIM_INFINITY))

        collector = self.serve(preexec_fn=small_files)
        self.send(self.datagram(1), self.datagram(2, " a=" + "x" * 400), self.datagram(3))
        wait_until(lambda: "event 2 of" in collector.errors(), "an event that is not recorded")
        self.assertEqual(self.received(), self.datagram(1))
        self.assertEqual([r["eventNumber"] for r in collector.records()], [1])
        summary = collector.stop()
        self.assertEqual(summary["datagrams"], 3)
        self.assertEqual(summary["datagrams-unrecorded"], 2)
        self.assertEqual(summary["datagrams-acknowledged"], 1)


class UploadServerTest(ServingTest):
    def test_file_is_kept_recorded_and_answered_success(self):
        collector = self.serve()
        content = os.urandom(300_000) + b"a" * 1_000_000
        status, answer = self.upload("a%20b%2B+.log.gz", content)
        self.assertEqual((status, json.loads(answer)), (200, {"status": "success"}))
        self.assertEqual(self.kept(), {"000001-a_b__.log.gz": content})
        record, = collector.records("upload")
        self.assertEqual(
            {key: record[key] for key in ("uuid", "sequence", "description", "filename", "raw", "bytes",
                                          "storedAs", "answer", "path", "contentType")},
            {"uuid": "D1", "sequence": 5, "description": "a log (Uploaded by Qel)",
             "filename": "a b++.log.gz", "raw": True, "bytes": len(content), "storedAs": "000001-a_b__.log.gz",
             "answer": "success", "path": "/upload", "contentType": "application/octet-stream"})
        self.assertEqual(record["wireBytes"], len(gzip.compress(content)))
        summary = collector.stop()
        self.assertEqual((summary["uploads"], summary["upload-bytes"]), (1, len(content)))

    def test_no_name_leaves_the_folder_and_no_file_is_replaced(self):
        collector = self.serve()
        earlier = os.path.join(collector.uploads, "000002-passwd")
        with open(earlier, "wb") as file:
            file.write(b"of an earlier run")
        for name in ("..%2F..%2Fetc%2Fpasswd", "%2Fetc%2Fpasswd", "..", "%00"):
            self.assertEqual(self.upload(name, name.encode())[0], 200)
        self.assertEqual(self.kept(), {"000001-passwd": b"..%2F..%2Fetc%2Fpasswd",
                                       "000002-passwd": b"of an earlier run",
                                       "000003-passwd": b"%2Fetc%2Fpasswd", "000004-_.": b"..",
                                       "000005-_": b"%00"})

    def test_plain_and_chunked_bodies_are_taken(self):
        self.serve()
        target = UPLOAD + "f"
        self.assertEqual(self.request("POST", target, b"plain")[0], 200)
        pieces = iter([b"in ", b"pieces"])
        self.assertEqual(self.request("POST", target, pieces)[0], 200)
        self.assertEqual(self.kept(), {"000001-f": b"plain", "000002-f": b"in pieces"})

    # The sender deletes a file that was taken.
    def test_body_that_ends_within_its_gzip_stream_is_refused(self):
        collector = self.serve()
        whole = gzip.compress(os.urandom(100_000))
        headers = {"Content-Encoding": "gzip"}
        for body in (whole[:-1], whole[:50_000], b"", b"no gzip", whole + b"more",
                     whole[:-8] + b"\0" * 8):
            status, answer = self.request("POST", UPLOAD + "f", body, headers)
            self.assertEqual(status, 400)
            self.assertNotIn(b"success", answer)
        self.assertEqual(self.kept(), {})
        self.assertEqual(collector.records(), [])
        self.assertEqual(collector.stop()["uploads-refused"], 6)

    def test_incomplete_and_unknown_requests_are_refused_on_a_connection_that_stays_usable(self):
        self.serve()
        connection = self.connect()
        for target in ("/upload", "/upload?uuid=a&sequence=1", "/upload?uuid=a&sequence=x&filename=f"):
            self.assertEqual(self.request("POST", target, b"x" * 100_000, connection=connection)[0], 400)
        self.assertEqual(self.request("POST", UPLOAD + "f", b"x", {"Content-Encoding": "br"}, connection)[0], 400)
        self.assertEqual(self.request("POST", UPLOAD + "f", b"x", connection=connection)[0], 200)
        self.assertEqual(self.kept(), {"000001-f": b"x"})

    # A thousand times more than its body: it may not fill the disk.
    def test_file_above_the_limit_is_refused_and_leaves_nothing(self):
        collector = self.serve("--upload-limit", "100000")
        self.assertEqual(self.upload("f", b"a" * 100_001)[0], 400)
        self.assertEqual(self.upload("f", b"a" * 100_000_000)[0], 400)
        self.assertEqual(self.upload("f", b"a" * 100_000)[0], 200)
        self.assertEqual(list(self.kept()), ["000001-f"])
        self.assertEqual(collector.stop()["uploads-refused"], 2)

    def test_upload_that_breaks_off_leaves_nothing(self):
        collector = self.serve()
        connection = self.connect()
        connection.putrequest("POST", UPLOAD + "f")
        connection.putheader("Content-Length", "1000000")
        connection.endheaders()
        connection.send(b"x" * 500_000)
        wait_until(self.kept, "a file that is being received")
        connection.close()
        wait_until(lambda: not self.kept(), "an unfinished file that is gone")
        wait_until(lambda: "the body is incomplete" in collector.errors(), "a refusal")
        self.assertEqual(collector.stop()["uploads"], 0)

    def test_upload_that_cannot_be_recorded_is_not_kept(self):
        self.serve(output="/dev/full")
        status, answer = self.upload("f", b"content")
        self.assertEqual(status, 500)
        self.assertNotIn(b"success", answer)
        self.assertEqual(self.kept(), {})

    def answer_of(self, mode):
        self.serve("--upload-answer", mode)
        return self.upload("f", b"content")

    def test_failure_answers_without_the_word_success(self):
        self.assertEqual(self.answer_of("failure"), (200, b'{"status":"failure"}'))
        self.assertEqual(self.kept(), {"000001-f": b"content"})
        self.assertEqual(self.collector.records("upload")[0]["answer"], "failure")

    def test_empty_answers_nothing(self):
        self.assertEqual(self.answer_of("empty"), (200, b""))

    def test_http_500_answers_a_server_error(self):
        self.assertEqual(self.answer_of("http-500"), (500, b'{"status":"failure"}'))

    def test_broken_answers_end_in_their_middle(self):
        self.assertRaises(http.client.IncompleteRead, self.answer_of, "broken")

    def test_hanging_answers_end_with_the_server(self):
        collector = self.serve("--upload-answer", "hang")
        waiting = threading.Thread(target=lambda: self.upload("f", b"content"), daemon=True)
        waiting.start()
        collector.wait_for_records(1, "upload")
        self.assertEqual(self.request("POST", "/events", POST)[0], 200)
        self.assertTrue(waiting.is_alive())
        self.assertEqual(collector.stop()["uploads"], 1)
        waiting.join(DEADLINE)
        self.assertFalse(waiting.is_alive())

    def test_wrong_usage_names_the_option_and_what_was_given(self):
        for option, value in (("--upload-answer", "maybe"), ("--upload-answer", "3"), ("--upload-limit", "-1"),
                              ("--upload-limit", "0"), ("--ack-drop", "-1"), ("--ack-drop-every", "-1"),
                              ("--ack-corrupt", "-1"), ("--ack-bytes", "-1"), ("--ack-loss", "2"), ("--seed", "-1")):
            result = subprocess.run([binary("zuncollector"), option, value], capture_output=True, text=True,
                                    timeout=DEADLINE, check=False)
            self.assertEqual(result.returncode, 2)
            self.assertRegex(result.stderr, f"{option}.*{value}")


class LogDataServerTest(ServingTest):
    HEADERS = {"Content-Type": "application/octet-stream"}

    @staticmethod
    def archive(objects):
        return plistlib.dumps({"format": "zunreporting.keyed-archive", "version": 1, "objects": objects,
                               "top": len(objects) - 1}, fmt=plistlib.FMT_BINARY)

    def test_archive_is_recorded_and_its_location_gives_it_back(self):
        collector = self.serve()
        body = self.archive(["k", "v", {"keys": [0], "values": [1]}, b"\1\2", [2, 3, 2]])
        status, location = self.request("POST", "/logdata", body, self.HEADERS)
        self.assertEqual(status, 200)
        record, = collector.records("logdata")
        self.assertEqual(record["records"], [{"k": "v"}, {"base64": "AQI="}, {"k": "v"}])
        self.assertEqual(record["location"], location.decode())
        self.assertEqual(record["bytes"], len(body))
        path = "/" + location.decode().split("/", 3)[3]
        self.assertEqual(self.request("GET", path), (200, body))
        self.assertEqual(self.request("GET", path + "x")[0], 404)
        self.assertEqual(self.request("GET", "/logdata/..%2Freceived.ndjson")[0], 404)
        summary = collector.stop()
        self.assertEqual((summary["logdata"], summary["logdata-records"]), (1, 3))

    def test_what_is_no_archive_of_an_array_is_refused(self):
        collector = self.serve()
        for body, headers in ((b"", self.HEADERS), (b"junk", self.HEADERS), (POST, self.HEADERS),
                              (self.archive(["text"]), self.HEADERS), (self.archive([[]]), {})):
            self.assertIn(self.request("POST", "/logdata", body, headers)[0], (400, 415))
        self.assertEqual(collector.records(), [])
        self.assertEqual(collector.stop()["logdata-refused"], 5)


if __name__ == "__main__":
    unittest.main()
