"""One event's way through everything: client, daemon, signed storebag, post."""

import os
import unittest

from harness import ScratchTest, client_entry, run, binary

SOURCES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")


class EndToEndTest(ScratchTest):
    def event(self, **payload):
        return {"category": 2, "type": 7, "payload": payload}

    def posts_of_one_event_session(self):
        """The posts of a session that reports one event of type 7 at once, by event map.

        Posts share several connections, so their order of arrival is nobody's promise.
        """
        posts = [self.scratch.server.next_post() for _ in range(3)]
        by_map = {post.headers["X-ZUN-Event-Map"]: post for post in posts}
        self.assertEqual(set(by_map), {"0 0", "2 7", "0 1"})
        return by_map

    def records(self, post, method=None):
        return [e for e in post.events if method is None or e["_method"] == method]

    def test_an_event_sent_at_once_arrives_as_a_record_of_its_own(self):
        self.scratch.publish()
        self.scratch.start()
        self.scratch.send([self.event(answer=42, text="häh")])
        post = self.posts_of_one_event_session()["2 7"]
        self.assertEqual(list(post.json), ["postTime", "clientId", "events"])
        record = post.events[0]
        self.assertEqual(len(post.events), 1)
        self.assertEqual((record["answer"], record["text"]), (42, "häh"))
        self.assertEqual((record["_method"], record["_status"], record["_sender"]), (2, 7, "KF"))
        self.assertEqual(record["userInfoClientName"], "tester")
        self.assertEqual(record["_eventNumber"], 2)
        self.assertEqual(record["_reportVers"], "3.2.1")
        self.assertEqual(record["_startTS"] % 60, 0)
        self.assertEqual(post.path, "/post")

    def test_request_headers_name_client_service_and_sender(self):
        self.scratch.publish()
        self.scratch.start()
        self.scratch.send([self.event(a=1)])
        post = self.posts_of_one_event_session()["2 7"]
        expected = {"X-ZUN-Client-Name": "tester", "X-ZUN-Service-Name": "bench",
                    "User-Agent": "ZunReporting/3.2.1 (Pallax12,3; 12.11)", "X-ZUN-Client-Version": "1",
                    "X-ZUN-Sender": "KF", "X-ZUN-Event-Map": "2 7", "Accept": "application/json",
                    "Content-Type": "application/json", "Content-Length": str(len(post.wire))}
        for name, value in expected.items():
            self.assertEqual(post.headers.get(name), value, name)
        self.assertNotIn("X-ZUN-Internal-Build", post.headers)

    def test_batched_events_arrive_in_one_compressed_post_in_order(self):
        self.scratch.publish()
        self.scratch.start()
        self.scratch.send([self.event(number=i) for i in range(40)], "--batch")
        post = self.scratch.server.next_post()
        self.assertEqual(post.headers["Content-Encoding"], "gzip")
        self.assertNotIn("X-ZUN-Event-Map", post.headers)
        self.assertEqual([e["number"] for e in self.records(post, 2)], list(range(40)))

    def test_end_message_follows_when_the_client_goes(self):
        self.scratch.publish()
        self.scratch.start()
        self.scratch.send([self.event(a=1)])
        end = self.posts_of_one_event_session()["0 1"].events[0]
        self.assertEqual((end["_method"], end["_status"]), (0, 1))
        self.assertEqual(end["StorebagVersion"], "1.0")
        self.assertEqual(end["GracefulTermination"], True)

    def test_filters_and_deny_lists_of_the_storebag_apply(self):
        entry = client_entry(event_blacklist=[9], filters=[
            {"key": "secret", "action": "remove"}, {"key": "name", "action": "sha256"}])
        self.scratch.publish(backends={"httpPost": {"clients": [entry]}})
        self.scratch.start()
        denied = {"category": 9, "type": 0, "payload": {"a": 1}}
        self.scratch.send([denied, self.event(secret="x", name="abc", kept="yes")])
        record = self.posts_of_one_event_session()["2 7"].events[0]
        self.assertEqual(record["_method"], 2)
        self.assertNotIn("secret", record)
        self.assertEqual(record["name"], "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
        self.assertEqual(record["kept"], "yes")

    def test_second_daemon_serves_from_the_disk_cache_while_the_server_is_away(self):
        self.scratch.publish()
        self.scratch.start()
        self.scratch.send([self.event(a=1)])
        self.scratch.daemon.stop()
        self.scratch.server.behaviour["/confero"] = 500
        self.scratch.start()
        result = self.scratch.send([self.event(a=2)])
        self.assertIn("sent 1 events, 0 failed", result.stdout)

    def test_client_without_a_storebag_is_told_so(self):
        self.scratch.start()
        self.expect_error("fetchStorebagWithName: Signature is missing")
        self.expect_error("fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type 7")
        self.expect_error("fetchAndCacheStorebag: Unable to fetch storebag for client type 7")
        result = self.scratch.send([self.event(a=1)], check=False)
        self.assertEqual(result.returncode, 3)
        self.assertIn("the daemon has no storebag for client type 7", result.stderr)

    def test_lines_that_are_no_events_are_told_and_the_others_sent(self):
        self.scratch.publish()
        self.scratch.start()
        lines = '{"category": 2, "type": 7}\nnonsense\n{"category": 70000, "type": 1}\n{"category": 2, "type": 8}\n'
        result = run(binary("zunreportingctl"), "--address", self.scratch.address, "send", "--client-name", "tester",
                     input=lines, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("line 2: not JSON", result.stderr)
        self.assertIn('line 3: "category" must be a whole number from 0 to 65535', result.stderr)
        self.assertIn("sent 2 events, 2 failed", result.stdout)

    def test_text_with_a_nul_is_told_and_not_sent_cut(self):
        self.scratch.publish()
        self.scratch.start()
        lines = ('{"category": 2, "type": 7, "payload": {"a": "x\\u0000y"}}\n'
                 '{"category": 2, "type": 7, "payload": {"a\\u0000b": 1}}\n{"category": 2, "type": 8}\n')
        result = run(binary("zunreportingctl"), "--address", self.scratch.address, "send", "--client-name", "tester",
                     input=lines, check=False)
        self.assertEqual(result.returncode, 1)
        for line in (1, 2):
            self.assertIn(f"line {line}: sendMessageWithDictionary: cannot encode the arguments", result.stderr)
        self.assertIn("sent 1 events, 2 failed", result.stdout)

    def test_application_outside_of_the_tree_builds_the_client_library_and_reports(self):
        folder = self.scratch.path("application")
        run("cmake", "-G", "Ninja", "-S", os.path.join(SOURCES, "client/examples"), "-B", folder,
            "-DCMAKE_BUILD_TYPE=Debug")
        run("cmake", "--build", folder, timeout=300)
        self.scratch.publish()
        self.scratch.start()
        self.assertEqual(run(os.path.join(folder, "report"), "7", self.scratch.address).stderr, "")
        (record,) = self.posts_of_one_event_session()["2 7"].events
        self.assertEqual((record["page"], record["seconds"], record["touches"]), ("settings", 1.5, 3))
        self.assertEqual((record["userInfoClientName"], record["userInfoServiceName"]), ("report", "examples"))

    def test_client_that_is_not_entitled_is_refused_before_its_first_call(self):
        self.scratch.entitle({"user": os.getuid(), "executable": "/usr/bin/true",
                              "entitlements": {"com.vantix.private.zunreportingd": True}})
        self.scratch.start()
        result = self.scratch.send([self.event(a=1)], check=False)
        self.assertEqual(result.returncode, 3)
        self.scratch.daemon.wait_for_line("does not have required zunreporting entitlement. Closing connection...")
        self.assertFalse(self.scratch.daemon.has_line("initWithSessionDelegate"))

    def test_no_daemon_is_a_clear_error(self):
        result = self.scratch.send([self.event(a=1)], check=False)
        self.assertEqual(result.returncode, 3)
        self.assertIn("cannot connect to unix:path=", result.stderr)


if __name__ == "__main__":
    unittest.main()
