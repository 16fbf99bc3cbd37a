"""What leaves the daemon, and what is told of that which does not. The clients' D-Bus is GLib's."""

import unittest

from gi.repository import GLib

from harness import ScratchTest, client_entry
from test_hierarchies import Client, session_info, user_info

REALTIME, PROMOTE = 1, 2
HELPERS_IN_ALL = 8192
NO_USER = "there is no user information, or the user has changed without a new start"


class PostingTest(ScratchTest):
    def client(self):
        client = Client(self.scratch)
        self.addCleanup(client.close)
        return client

    @staticmethod
    def send(client, number, flag=0):
        return client.call("sendMessageWithDictionary", "(a{sv})", {
            "messageParametersCategory": GLib.Variant("u", 5), "messageParametersType": GLib.Variant("u", 6),
            "messageParametersFlag": GLib.Variant("u", flag),
            "messageParametersPayload": GLib.Variant("a{sv}", {"number": GLib.Variant("i", number)})})

    def next_numbers(self):
        return [event.get("number") for event in self.scratch.server.next_post().events]

    def expect_lost(self, client, session, count, why):
        self.expect_error(f"postJSONMessage: session {session} loses events: {why}")
        client.close()
        self.scratch.daemon.wait_for_line(f"postJSONMessage: session {session} has lost {count} events: {why}")
        told = [line for line in self.scratch.daemon.errors() if "loses events" in line]
        self.assertEqual(len(told), 1, told)

    def test_promotion_of_a_backend_that_started_sampled_out_makes_its_posts_leave(self):
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(sampling_threshold=0.0)]}})
        self.scratch.start()
        client = self.client()
        client.start(session_info(1))
        self.send(client, 1, PROMOTE)
        self.send(client, 2, REALTIME)
        posts = sorted([self.next_numbers() for _ in range(2)], key=len)
        self.assertEqual(posts, [[2], [None, 1]])

    def test_same_user_again_posts_on_where_no_more_helpers_are_shared(self):
        self.scratch.publish(release_timeout=0)
        self.scratch.start()
        self.expect_error("newBackendWithName): release_timeout")
        self.expect_error(f"{HELPERS_IN_ALL} connectivity helpers are shared already")
        other, client = self.client(), self.client()
        other.start(session_info(1))  # with a release timeout of 0 helpers stay for ever
        for number in range(HELPERS_IN_ALL):
            other.call("fetchStatesWithUserInfo", "(aa{sv})", [user_info(f"user {number}")])
        client.start(session_info(2), user_info("late"))
        self.assertEqual(client.call("fetchStatesWithUserInfo", "(aa{sv})", [user_info("late")]), ([["httpPost"]],))
        self.send(client, 7, REALTIME)
        posts = sorted([self.next_numbers() for _ in range(2)], key=str)
        self.assertEqual(posts, [[7], [None]])

    def test_session_without_a_user_is_told_that_it_loses_its_events(self):
        self.scratch.publish()
        self.scratch.start()
        client = self.client()
        info = dict(session_info(3), sessionInfoRequireUserInfo=GLib.Variant("b", False))
        client.call("setSessionInfo", "(a{sv}aa{sv}asb)", info, [], [], False)
        client.call("startConfigWithCompletionHandler")
        for number in range(4):
            self.send(client, number, REALTIME)
        self.expect_lost(client, 3, 6, NO_USER)  # with its start and end messages

    def test_entry_without_a_post_url_loses_events_with_an_error_line(self):
        self.scratch.publish(backends={"httpPost": {"clients": [client_entry(post_url=None)]}})
        self.scratch.start()
        client = self.client()
        client.start(session_info(4))
        self.send(client, 1, REALTIME)
        self.expect_lost(client, 4, 3, "the storebag has no post_url for it")


if __name__ == "__main__":
    unittest.main()
