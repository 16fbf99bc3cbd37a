"""Events as datagrams: the bytes on the wire, their acknowledgement and their retransmission."""

import json
import select
import signal
import socket
import struct
import subprocess
import time
import unittest

from harness import DEADLINE, Collector, ScratchTest, binary, run, wait_until

SO_TIMESTAMPNS = 35  # Linux; the socket module does not name it
SESSION_ID = 0xA1B2C3D4
CLIENT_VERSION = 0x1234
HEADER_BYTES = 64
BEGIN, EVENT, END = (0, 0), (901, 2), (0, 1)
CLEANED_UP = "DashboardBackend(myPeriodicTask): clean up at myPeriodicTask."


class Datagram:
    """What was received, taken apart byte by byte."""

    def __init__(self, data, sender, received):
        self.data, self.sender, self.received = data, sender, received
        self.format_version = data[0]
        self.client_type = data[1]
        self.constant = data[2]
        self.subseconds = data[3]
        self.seconds = int.from_bytes(data[4:8], "big")
        self.session_id = int.from_bytes(bytes(byte ^ 0xFF for byte in data[8:12]), "big")
        self.client_version = int.from_bytes(bytes(byte ^ 0xFF for byte in data[12:14]), "big")
        self.length = int.from_bytes(bytes(byte ^ 0xFF for byte in data[14:16]), "big")
        self.method = int.from_bytes(data[16:18], "big")
        self.resp_code = int.from_bytes(data[18:20], "big")
        self.device_id = data[20:60]
        self.event_number = int.from_bytes(data[60:62], "big")
        self.flags = int.from_bytes(data[62:64], "big")
        self.text = data[64:]

    @property
    def kind(self):
        return (self.method, self.resp_code)


class Dashboard:
    """A UDP socket that receives, with the kernel's own time of each datagram."""

    def __init__(self, port=0):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.socket.settimeout(DEADLINE)
        self.socket.bind(("127.0.0.1", port))
        self.port = self.socket.getsockname()[1]

    def receive(self):
        data, ancillary, _, sender = self.socket.recvmsg(2000, 256)
        seconds, nanoseconds = struct.unpack("@ll", ancillary[0][2][:16])
        return Datagram(data, sender, seconds + nanoseconds / 1e9)

    def receive_waiting(self):
        """Those that have come and were not received yet."""
        datagrams = []
        while select.select([self.socket], [], [], 0)[0]:
            datagrams.append(self.receive())
        return datagrams

    def acknowledge(self, datagram, size=None):
        self.socket.sendto(datagram.data[:size], datagram.sender)

    def close(self):
        self.socket.close()


class DashboardTest(ScratchTest):
    def dashboard(self, port=0):
        dashboard = Dashboard(port)
        self.addCleanup(dashboard.close)
        return dashboard

    def start(self, port, *options, **changes):
        """The daemon with a storebag whose only backend sends to `port` of this machine."""
        self.scratch.publish(backends={"dashboard": {"ip": "127.0.0.1", "port": port} | changes})
        return self.scratch.start(*options)

    def collector(self, *options):
        collector = Collector(self.scratch.folder, self.scratch.authority, *options)
        self.addCleanup(collector.close)
        return collector

    def send(self, *payloads):
        """A session that reports these and ends. Its beginning and end are events too."""
        return self.scratch.send(
            [{"category": EVENT[0], "type": EVENT[1], "payload": payload} for payload in payloads],
            "--session-id", str(SESSION_ID), "--client-version", str(CLIENT_VERSION), "--verbose")


class WireTest(DashboardTest):
    def event_datagram(self, payload, **changes):
        dashboard = self.dashboard()
        self.start(dashboard.port, **changes)
        before = time.time()
        answer = self.send(payload)
        after = time.time()
        begin, event, end = datagrams = [dashboard.receive() for _ in range(3)]
        for datagram in datagrams:  # nobody waits for them when the daemon stops
            dashboard.acknowledge(datagram)
        self.assertEqual([d.kind for d in (begin, event, end)], [BEGIN, EVENT, END])
        self.assertEqual([d.event_number for d in (begin, event, end)], [1, 2, 3])
        return event, before, after, answer.stdout

    def test_every_byte_of_a_datagram(self):
        event, before, after, _ = self.event_datagram({"b": "xyz", "a": "1"})
        text = b" a=1 b=xyz"
        self.assertEqual(event.text, text)
        self.assertEqual(len(event.data), HEADER_BYTES + len(text))
        self.assertEqual(event.format_version, 3)
        self.assertEqual(event.client_type, 7)
        self.assertEqual(event.constant, 1)
        self.assertLess(event.subseconds, 250)
        sent = event.seconds + event.subseconds * 0.004
        self.assertTrue(before - 0.004 <= sent <= after, (before, sent, after))
        self.assertEqual(event.session_id, SESSION_ID)
        self.assertEqual(event.client_version, CLIENT_VERSION)
        self.assertEqual(event.length, len(event.data))
        self.assertEqual(event.device_id, b"TEST-DEVICE".ljust(40, b"\0"))
        self.assertEqual(event.flags, 0)
        # Once more as the bytes themselves: what is inverted, and in which order.
        self.assertEqual(event.data[8:16], bytes.fromhex("5e4d3c2b" "edcb" "ffb5"))
        self.assertEqual(event.data[16:20], bytes.fromhex("0385" "0002"))
        self.assertEqual(event.data[60:64], bytes.fromhex("0002" "0000"))

    def test_text_is_sorted_by_length_and_escaped(self):
        event, *_ = self.event_datagram({"long": "a\\b=c\nd", "none": "", "dictionary": {"k": 1}, "list": [1, 2],
                                         "number": 7, "real": 0.5, "umlaut": "ä", "blank": "x y z w v u t"})
        self.assertEqual(event.text.decode(),
                         " none=empty number=7 umlaut=ä real=0.5 dictionary=null list=null "
                         "long=a\\\\b\\=cd blank=x y z w v u t")

    def test_text_is_cut_at_1023_bytes(self):
        event, *_ = self.event_datagram({"k": "x" * 100_000})
        self.assertEqual(event.text, b" k=" + b"x" * 1020)
        self.assertEqual(event.length, 1087)

    def test_reliable_mode_is_told_in_the_flags(self):
        event, *_ = self.event_datagram({"a": 1}, reliable=100_000)
        self.assertEqual(event.flags, 1)

    def test_answer_is_the_line_of_the_local_log(self):
        event, _, _, output = self.event_datagram({"a": 1})
        line, = (line.removeprefix("1: ") for line in output.splitlines() if line.startswith("1: "))
        self.assertEqual(line, f"{event.seconds}.{event.subseconds * 4:03} {'TEST-DEVICE'} 127.0.0.1 KF "
                               f"{CLIENT_VERSION:5} {SESSION_ID:5} {2:5} {EVENT[0]:5} {EVENT[1]:5}  a=1")

    def test_collector_reads_the_same_as_the_bytes_say(self):
        collector = self.collector()
        self.start(collector.dashboard[1])
        self.send({"b": "x=1\n", "a": "two words"})
        record = collector.wait_for_records(3, "dashboard")[1]
        self.assertEqual(
            [record[key] for key in ("sessionID", "clientVersion", "method", "respCode", "eventNumber", "flags",
                                     "clientType", "formatVersion", "deviceID", "text", "fields")],
            [SESSION_ID, CLIENT_VERSION, *EVENT, 2, 0, 7, 3, "TEST-DEVICE", r" b=x\=1 a=two words",
             {"b": "x=1", "a": "two words"}])
        self.assertEqual(collector.stop()["datagrams-malformed"], 0)


class RetransmissionTest(DashboardTest):
    def by_event(self, datagrams):
        events = {}
        for datagram in datagrams:
            events.setdefault(datagram.event_number, []).append(datagram)
        return events

    # On ticks 2, 5, 10 and 19 after the first transmission. That may come just before a tick
    # which is itself late; no tick comes early, and a machine that is busy only makes them later.
    def test_unacknowledged_event_is_sent_five_times_with_growing_gaps_and_then_given_up(self):
        tick = 0.2
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, reliable=int(tick * 1000))
        self.send({"a": 1}, {"a": 2})
        daemon.wait_for_line(CLEANED_UP)
        events = self.by_event(dashboard.receive_waiting())
        self.assertEqual(set(events), {1, 2, 3, 4})
        for transmissions in events.values():
            self.assertEqual(len(transmissions), 5)
            self.assertEqual(len({d.data for d in transmissions}), 1)
            times = [d.received for d in transmissions]
            self.assertEqual(times, sorted(times))
            for ticks, time_of in zip((2, 5, 10, 19), times[1:]):
                self.assertGreaterEqual(time_of - times[0], (ticks - 3) * tick, f"{ticks} ticks")

    # All are retransmitted on the same tick, oldest first.
    def test_retransmissions_keep_the_order_of_the_events(self):
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, reliable=20)
        self.send(*({"a": n} for n in range(20)))
        daemon.wait_for_line(CLEANED_UP)
        last = {}
        for position, datagram in enumerate(dashboard.receive_waiting()):
            last[datagram.event_number] = position
        self.assertEqual(sorted(last, key=last.get), list(range(1, 23)))

    # The end of the session is not acknowledged: when it is given up, all had their chance.
    def test_acknowledged_events_are_not_sent_again(self):
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, reliable=400)
        self.send({"a": 1}, {"a": 2}, {"a": 3})
        events = [dashboard.receive() for _ in range(5)]
        for datagram, size in zip(events[:4], (None, 62, 63, 64)):
            dashboard.acknowledge(datagram, size)
        daemon.wait_for_line(CLEANED_UP)
        transmissions = self.by_event(events + dashboard.receive_waiting())
        self.assertEqual(len(transmissions.pop(5)), 5)
        for datagrams in transmissions.values():
            self.assertLess(len(datagrams), 3)  # one, unless this process was held up for a second

    def test_useless_acknowledgements_change_nothing(self):
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, reliable=50)
        self.send({"a": 1})
        events = [dashboard.receive() for _ in range(3)]
        stranger = self.dashboard()
        for datagram in events:
            stranger.acknowledge(datagram)
            dashboard.acknowledge(datagram, 61)
            dashboard.acknowledge(datagram, 0)
            dashboard.socket.sendto(b"x" * 60 + b"\xff\xff" + b"y" * 60_000, datagram.sender)
        daemon.wait_for_line(CLEANED_UP)
        transmissions = self.by_event(events + dashboard.receive_waiting())
        self.assertEqual({number: len(each) for number, each in transmissions.items()}, {1: 5, 2: 5, 3: 5})

    def numbers_again(self, collector):
        """Event numbers of the duplicates that were acknowledged."""
        return {r["eventNumber"] for r in collector.records("dashboard")
                if r["duplicate"] and r["acknowledgement"] == "sent"}

    def test_lost_acknowledgements_bring_duplicates_that_the_event_number_tells(self):
        collector = self.collector("--ack-drop", "2")
        self.start(collector.dashboard[1], reliable=100)
        self.send({"a": 1})
        collector.wait_for_records(3, "dashboard")
        lost = {r["eventNumber"] for r in collector.records("dashboard") if r["acknowledgement"] == "dropped"}
        wait_until(lambda: lost <= self.numbers_again(collector), "acknowledged duplicates")
        first = [r["eventNumber"] for r in collector.records("dashboard") if not r["duplicate"]]
        self.assertEqual(first, [1, 2, 3])

    def test_spoilt_acknowledgement_is_none(self):
        collector = self.collector("--ack-corrupt", "1", "--ack-duplicate")
        self.start(collector.dashboard[1], reliable=100)
        self.send({"a": 1})
        spoilt = collector.wait_for_records(3, "dashboard")[0]
        self.assertEqual((spoilt["eventNumber"], spoilt["acknowledgement"]), (1, "corrupted"))
        wait_until(lambda: 1 in self.numbers_again(collector), "an acknowledged duplicate")

    # Nobody listens at first, so the kernel refuses the first transmissions.
    def test_events_outlast_a_server_that_is_away(self):
        port = self.dashboard()
        port.close()
        self.start(port.port, reliable=500)
        self.send({"a": 1})
        dashboard = self.dashboard(port.port)
        events = self.by_event([dashboard.receive() for _ in range(3)])
        self.assertEqual(set(events), {1, 2, 3})


class StopTest(DashboardTest):
    def session(self):
        """A client that stays connected."""
        client = subprocess.Popen([binary("zunreportingctl"), "--address", self.scratch.address, "send",
                                   "--client-name", "tester", "--verbose"],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (client.kill(), client.communicate()))
        self.assertIn("active backends: dashboard", client.stdout.readline())

    def receive_end_twice(self, dashboard):
        """Every datagram up to the first retransmission of the session's end."""
        datagrams = []
        while sum(datagram.kind == END for datagram in datagrams) < 2:
            datagrams.append(dashboard.receive())
        return datagrams

    def acknowledge_all(self, dashboard, datagrams):
        for datagram in datagrams:
            dashboard.acknowledge(datagram)

    def test_stop_waits_for_acknowledgements(self):
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, reliable=100)
        self.session()
        daemon.process.send_signal(signal.SIGTERM)
        self.acknowledge_all(dashboard, self.receive_end_twice(dashboard))
        self.assertEqual(daemon.wait(), 0)

    def test_stop_waits_for_acknowledgements_no_longer_than_the_grace(self):
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, "--stop-grace", "1", reliable=3600_000)
        self.session()
        self.expect_error("main: stopped with 0 connections, 0 transfers, 1 dashboards and 0 jobs unfinished")
        self.assertEqual(daemon.stop(), 0)

    def test_idle_exit_waits_for_acknowledgements_and_serves_on(self):
        dashboard = self.dashboard()
        daemon = self.start(dashboard.port, "--idle-exit", "0", reliable=100)
        self.send({"a": 1})
        datagrams = self.receive_end_twice(dashboard)
        self.send({"a": 2})
        self.acknowledge_all(dashboard, datagrams + self.receive_end_twice(dashboard))
        self.assertEqual(daemon.wait(), 0)


class LogDataTest(DashboardTest):
    def test_log_data_is_archived_and_its_location_reported_as_an_event(self):
        collector = self.collector()
        self.start(collector.dashboard[1], reliable=500, post_url=collector.url + "/logdata")
        lines = "".join(json.dumps(line) + "\n" for line in ({"n": 1, "t": "ä"}, ["x", 2.5], "text"))
        run(binary("zunreportingctl"), "--address", self.scratch.address, "upload-logs", input=lines)
        archive, = collector.records("logdata")
        self.assertEqual(archive["records"], [{"n": 1, "t": "ä"}, ["x", 2.5], "text"])
        records = collector.wait_for_records(3, "dashboard")
        told, = (r for r in records if (r["method"], r["respCode"]) == (0, 2) and not r["duplicate"])
        self.assertEqual(told["fields"], {"LogDataUploadLocation": archive["location"]})


if __name__ == "__main__":
    unittest.main()
