"""How the daemon starts, stops and leaves."""

import json
import os
import signal
import socket
import subprocess
import threading
import unittest

from harness import DEADLINE, Journal, ScratchTest, binary, raw_connection, run, wait_until


class LifetimeTest(ScratchTest):
    def session(self, *options):
        """A client that stays connected until its input ends."""
        client = subprocess.Popen([binary("zunreportingctl"), "--address", self.scratch.address, "send",
                                   "--client-name", "tester", "--verbose", *options],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (client.kill(), client.communicate()))
        self.assertIn("active backends: httpPost", client.stdout.readline())
        return client

    def report(self, client, **payload):
        client.stdin.write(json.dumps({"category": 2, "type": 7, "payload": payload}) + "\n")
        client.stdin.flush()
        client.stdout.readline()

    def test_termination_posts_what_is_batched_and_exits_cleanly(self):
        self.scratch.publish()
        self.scratch.start()
        client = self.session("--batch")
        for number in range(5):
            self.report(client, number=number)
        self.assertEqual(self.scratch.daemon.stop(), 0)
        post = self.scratch.server.next_post()
        self.assertEqual([e["number"] for e in post.events if e["_method"] == 2], [0, 1, 2, 3, 4])
        self.assertEqual(post.events[-1]["_status"], 1)

    def test_termination_waits_for_a_transfer_no_longer_than_the_grace(self):
        self.scratch.publish()
        self.scratch.server.behaviour["/post"] = "hang"
        self.scratch.start("--stop-grace", "1")
        client = self.session("--batch")
        self.report(client, number=1)
        self.expect_error("main: stopped with 0 connections, 1 transfers,")
        self.assertEqual(self.scratch.daemon.stop(), 0)

    def test_termination_cancels_a_storebag_download(self):
        self.scratch.publish()
        self.scratch.server.behaviour["/confero"] = "hang"
        self.scratch.start()
        client = subprocess.Popen([binary("zunreportingctl"), "--address", self.scratch.address, "send",
                                   "--client-name", "tester"], stdin=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: (client.kill(), client.communicate()))
        wait_until(lambda: self.scratch.server.requests, "the download has begun")
        for text in ("Could not fetch storebag for client type", "Unable to fetch storebag for client type",
                     "fetchStorebagWithName: Signature is missing"):
            self.expect_error(text)
        self.assertEqual(self.scratch.daemon.stop(), 0)
        self.assertTrue(self.scratch.daemon.has_line("sendSynchronousRequest error the request was cancelled"))

    def test_second_termination_signal_ends_the_process_at_once(self):
        self.scratch.publish()
        self.scratch.server.behaviour["/post"] = "hang"
        self.scratch.start("--stop-grace", "3600")
        client = self.session("--batch")
        self.report(client, number=1)
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        self.scratch.server.next_post()
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        self.assertEqual(self.scratch.daemon.wait(), 1)

    def test_journal_has_the_last_lines_of_a_stop_that_is_over_its_grace(self):
        self.scratch.publish()
        self.scratch.server.behaviour["/post"] = "hang"
        self.scratch.start("--stop-grace", "1", journal=Journal(self.scratch.root))
        self.report(self.session("--batch"), number=1)
        self.expect_error("main: stopped with 0 connections, 1 transfers,")
        self.assertEqual(self.scratch.daemon.stop(), 0)

    def test_journal_that_was_slow_has_the_last_lines_before_a_second_signal(self):
        self.scratch.publish()
        self.scratch.server.behaviour["/post"] = "hang"
        journal = Journal(self.scratch.root)
        self.scratch.start("--stop-grace", "3600", journal=journal)
        client = self.session("--batch")
        journal.may_read.clear()
        for number in range(40):
            self.report(client, number=number)
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        self.scratch.server.next_post()
        self.scratch.daemon.process.send_signal(signal.SIGTERM)
        journal.may_read.set()
        self.assertEqual(self.scratch.daemon.wait(), 1)
        self.assertTrue(self.scratch.daemon.has_line("Flushing messages for session 1"))

    def test_only_the_main_thread_gives_way(self):
        self.scratch.publish()
        self.scratch.start()
        self.session("--batch")  # clients have threads of their own
        process = self.scratch.daemon.process.pid
        classes = {}
        for thread in map(int, os.listdir(f"/proc/{process}/task")):
            try:
                classes[thread] = (os.getpriority(os.PRIO_PROCESS, thread), os.sched_getscheduler(thread))
            except ProcessLookupError:
                continue  # it has ended meanwhile
        own = (os.getpriority(os.PRIO_PROCESS, 0), os.sched_getscheduler(0))
        self.assertEqual(classes.pop(process), (max(own[0], 5), os.SCHED_BATCH))
        self.assertGreater(len(classes), 3)
        self.assertEqual(set(classes.values()), {own})

    def test_idle_daemon_exits_and_a_daemon_that_never_worked_stays(self):
        self.scratch.publish(release_timeout=1)
        self.scratch.start("--idle-exit", "0")
        self.assertIsNone(self.scratch.daemon.process.poll())
        self.scratch.send([{"category": 2, "type": 7}])
        self.assertEqual(self.scratch.daemon.wait(), 0)
        self.assertTrue(self.scratch.daemon.has_line("releaseQuorxTransactions: Quorx transaction ended"))
        self.expect_error("ZunReportingBackend(newBackendWithName): release_timeout")

    # The loop may hear of such a session's beginning and end at the same time.
    def test_idle_daemon_exits_however_short_its_work_was(self):
        for _ in range(5):
            self.scratch.start("--idle-exit", "0")
            raw_connection(self.scratch.socket).close()
            self.assertEqual(self.scratch.daemon.wait(), 0)

    def test_idle_daemon_that_gets_work_again_begins_its_time_anew(self):
        self.scratch.publish(release_timeout=1)
        self.scratch.start("--idle-exit", "5")
        for number in range(3):
            self.scratch.send([{"category": 2, "type": number}])
            self.scratch.daemon.wait_for_line("releaseQuorxTransactions: Quorx transaction ended", number + 1)
        self.assertEqual(self.scratch.daemon.wait(), 0)
        self.assertEqual(len([post for post in self.scratch.server.all_posts()
                              if any(event["_method"] == 2 for event in post.events)]), 3)
        self.expect_error("ZunReportingBackend(newBackendWithName): release_timeout")

    def test_start_is_logged_before_clients_are_served(self):
        self.scratch.start(level="default")
        lines = [line for line in self.scratch.daemon.lines if "default:" in line]
        self.assertIn("startLogging: Daemon starts logging...", lines[0])
        self.assertIn("main: Listener resumes with sandbox, start loop.", lines[-1])

    def test_a_second_daemon_does_not_take_the_socket_of_a_living_one(self):
        self.scratch.start()
        second = run(binary("zunreportingd"), "--root", self.scratch.root, "--log-target", "stderr", check=False,
                     env={"HOME": self.scratch.home})
        self.assertEqual(second.returncode, 1)
        start, failure = second.stderr.splitlines()
        self.assertIn("startLogging: Daemon starts logging...", start)
        self.assertIn("error: main: ", failure)
        raw_connection(self.scratch.socket).close()

    def test_socket_left_behind_by_a_killed_daemon_is_taken_over(self):
        self.scratch.start()
        self.scratch.daemon.kill()
        self.assertTrue(os.path.exists(self.scratch.socket))
        self.scratch.start()
        raw_connection(self.scratch.socket).close()

    def test_socket_handed_over_by_the_service_manager_is_used(self):
        self.scratch.publish()
        path = self.scratch.path("activated")
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(path)
        listener.listen()
        command = (f'exec 3<&{listener.fileno()}; export LISTEN_FDS=1 LISTEN_PID=$$; exec "$@"')
        daemon = subprocess.Popen(
            ["bash", "-c", command, "bash", binary("zunreportingd"), "--root", self.scratch.root, "--ca-file",
             self.scratch.authority.ca, "--log-target", "stderr"],
            pass_fds=[listener.fileno()], stderr=subprocess.DEVNULL, env={"HOME": self.scratch.home,
                                                                          "PATH": os.environ["PATH"],
                                                                          "LANG": "de_DE.UTF-8"})
        self.addCleanup(lambda: (daemon.kill(), daemon.wait()))
        run(binary("zunreportingctl"), "--address", f"unix:path={path}", "send", "--client-name", "tester",
            input='{"category": 2, "type": 7}\n')
        daemon.terminate()
        self.assertEqual(daemon.wait(DEADLINE), 0)

    def test_help_and_version_need_nothing(self):
        self.assertIn("--stop-grace", run(binary("zunreportingd"), "--help").stdout)
        self.assertRegex(run(binary("zunreportingd"), "--version").stdout, r"^zunreportingd \d+\.\d+\.\d+\n$")
        self.assertEqual(run(binary("zunreportingd"), "--nonsense", check=False).returncode, 2)

    def test_clients_come_and_go_while_others_report(self):
        self.scratch.publish()
        self.scratch.start(level="default")
        results = []
        threads = [threading.Thread(target=lambda: results.append(
            self.scratch.send([{"category": 2, "type": i, "payload": {"i": i}} for i in range(20)], "--batch")))
            for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(DEADLINE)
        self.assertEqual(len(results), 8)
        self.scratch.daemon.stop()
        arrived = [event for post in self.scratch.server.all_posts() for event in post.events]
        self.assertEqual(len([event for event in arrived if event["_method"] == 2]), 160)
        self.assertEqual(len([event for event in arrived if event["_method"] == 0]), 16)


if __name__ == "__main__":
    unittest.main()
