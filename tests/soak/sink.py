"""The servers of the soak: HTTPS servers that fail at random, and remember what they were sent.

Started by soak.py, which says on standard input what is wanted:

    count           answers with one line of JSON: posts, events, and what became of the posts
    well            from now on nothing fails
    judge FILE      answers with one line of JSON: what came, held against what the clients' answers promise
"""

import gzip
import json
import random
import select
import socket
import ssl
import sys
import threading
import time

# Of a post: what its server did after it had read it.
ANSWERED, REFUSED, CUT, UNANSWERED, UNFINISHED = "answered", "refused", "cut", "unanswered", "unfinished"
MOODS = {"drip": 2, "silent": 2, "cut": 2, "5xx": 1, "no TLS": 2, "closes kept": 3}
HEAD = b"HTTP/1.1 %d Soak\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n"


class Post:
    """What came once, and what its server made of it."""

    __slots__ = ("was_kept", "outcome")

    def __init__(self, was_kept):
        self.was_kept = was_kept  # its connection had carried a request before
        self.outcome = UNFINISHED


class Received:
    """All events that came, by their names, with their posts."""

    def __init__(self):
        self.lock = threading.Lock()
        self.posts = []
        self.events = {}
        self.own_events = 0  # the daemon's: starts and ends of sessions

    def take(self, body, was_kept):
        names = [event.get("u") for event in json.loads(body)["events"]]
        post = Post(was_kept)
        with self.lock:
            self.posts.append(post)
            for name in names:
                if name is None:
                    self.own_events += 1
                else:
                    self.events.setdefault(name, []).append(post)
        return post

    def count(self):
        outcomes = {}
        with self.lock:
            for post in self.posts:
                outcomes[post.outcome] = outcomes.get(post.outcome, 0) + 1
            return {"posts": len(self.posts), "events": len(self.events), "outcomes": outcomes}

    def judge(self, path):
        """Lines of the clients: "posted" or "failed", the client, its first event and the one after its last."""
        promised = missing = unanswered = failed = failed_received = 0
        examples = []
        with open(path, encoding="ascii") as file:
            for line in file:
                word, client, first, end = (line.split() + ["0", "0", "0"])[:4]
                for number in range(int(first), int(end)):
                    posts = self.events.get(f"{client}.{number:06}", [])
                    if word == "failed":
                        failed += 1
                        failed_received += bool(posts)
                    elif word == "posted":
                        promised += 1
                        missing += not posts
                        unanswered += bool(posts) and all(post.outcome != ANSWERED for post in posts)
                        if not posts and len(examples) < 5:
                            examples.append(f"{client}.{number:06} never came")
        twice = more = unexplained = 0
        for name, posts in self.events.items():
            if len(posts) < 2:
                continue
            twice += 1
            more += len(posts) > 2
            # The only reason there is: a kept connection closed without a byte of answer.
            if not (posts[0].was_kept and posts[0].outcome == UNANSWERED):
                unexplained += 1
                if len(examples) < 5:
                    examples.append(f"{name}: " + ", ".join(f"kept {p.was_kept} {p.outcome}" for p in posts))
        return {**self.count(), "own events": self.own_events, "promised": promised, "missing": missing,
                "promised, not answered": unanswered, "failed": failed, "failed, received": failed_received,
                "twice": twice, "more often": more, "twice, unexplained": unexplained, "examples": examples}


class Server:
    """One port. Its mood changes every few seconds; in a bad one every second post meets it."""

    def __init__(self, context, received, rng):
        self.context = context
        self.received = received
        self.rng = rng
        self.mood = "well"
        self.is_well_for_good = False
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        for work in (self.accept, self.change_moods):
            threading.Thread(target=work, daemon=True).start()

    def change_moods(self):
        while not self.is_well_for_good:
            time.sleep(self.rng.uniform(4, 12))
            self.mood = self.rng.choices(list(MOODS), MOODS.values())[0] if self.mood == "well" else "well"
        self.mood = "well"

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            threading.Thread(target=self.serve, args=(client,), daemon=True).start()

    def serve(self, client):
        try:
            with client:
                client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                client.settimeout(30)
                if self.mood == "no TLS":
                    client.sendall(b"not today\r\n")
                    return
                with self.context.wrap_socket(client, server_side=True) as connection:
                    self.answer_requests(connection)
        except (OSError, ValueError):
            pass

    def answer_requests(self, connection):
        buffer = b""
        requests = 0
        while True:
            # Usual servers close what idles; here soon, so that posts meet it half-way.
            connection.settimeout(self.rng.uniform(5, 40))
            while (end := buffer.find(b"\r\n\r\n")) < 0 or len(buffer) < (whole := end + 4 + self.length(buffer[:end])):
                if not (more := connection.recv(65536)):
                    return
                buffer += more
            head, body, buffer = buffer[:end], buffer[end + 4:whole], buffer[whole:]
            if b"content-encoding: gzip" in head.lower():
                body = gzip.decompress(body)
            post = self.received.take(body, was_kept=requests > 0)
            requests += 1
            connection.settimeout(30)
            if not self.act(connection, post):
                return

    @staticmethod
    def length(head):
        for line in head.split(b"\r\n"):
            if line.lower().startswith(b"content-length:"):
                return int(line.split(b":")[1])
        return 0

    def act(self, connection, post):
        """Answers, or does what the mood says; whether the connection goes on."""
        mood = self.mood if self.rng.random() < 0.5 else "well"
        if mood == "drip":
            return self.drip(connection, post)
        if mood == "silent" or (mood == "closes kept" and post.was_kept):
            if mood == "silent":
                self.wait_for_end(connection, self.rng.choice((1, 5, 15, 70)))
            post.outcome = UNANSWERED
            return False
        if mood == "cut":
            connection.sendall(HEAD % (200, 1000))
            post.outcome = CUT
            return False
        # As seen from here: a connection that breaks now leaves it unfinished.
        connection.sendall(HEAD % (503 if mood == "5xx" else 200, 2) + b"{}")
        post.outcome = REFUSED if mood == "5xx" else ANSWERED
        return True

    def drip(self, connection, post):
        bytes_left = self.rng.choice((2, 5, 10, 30))
        connection.sendall(HEAD % (200, bytes_left))
        while bytes_left > 0:
            if not self.is_well_for_good and self.wait_for_end(connection, 1):
                return False
            connection.sendall(b" ")
            bytes_left -= 1
        post.outcome = ANSWERED
        return True

    def wait_for_end(self, connection, seconds):
        """Until the daemon gives it up, `seconds` at most; true if it did."""
        for _ in range(seconds):
            if self.is_well_for_good:
                return False
            if select.select([connection], [], [], 1)[0]:
                return True
        return False


def main():
    certificate, key, count, seed = sys.argv[1:]
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    received = Received()
    servers = [Server(context, received, random.Random(f"{seed} {number}")) for number in range(int(count))]

    def say(value):
        print(json.dumps(value), flush=True)

    say([server.port for server in servers])
    for line in sys.stdin:
        command, _, argument = line.strip().partition(" ")
        if command == "count":
            say(received.count())
        elif command == "well":
            for server in servers:
                server.is_well_for_good = True
                server.mood = "well"
            say({})
        elif command == "judge":
            say(received.judge(argument))


if __name__ == "__main__":
    main()
