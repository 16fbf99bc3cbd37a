"""The clients of the soak: processes that connect, report, hang and die.

Started by soak.py as `clients.py SOCKET CLIENTS SECONDS SEED LOG`. Each client that had a flush answered writes
"posted" or "failed" into LOG, with its name, its first event since the flush before and the one after the last;
one that lost its connection writes "lost".
"""

import os
import random
import signal
import socket
import struct
import sys
import time

from gi.repository import GLib

from test_budgets import call_bytes

CLIENT_TYPES = (7, 5, 6, 8, 9, 10, 12, 16)  # each a storebag, and a server, of its own
KINDS = {"reports": 12, "is urgent": 3, "has a family": 3, "never reads": 2, "stops half-way": 1, "idles": 2}
LONGEST_LIFE = 60  # seconds
NAME, NUMBER = "nnnnnnnn", "000000"
REALTIME = 1
MOST_BORN_AT_ONCE = 20


def session_bytes(client_type, family=None, level=0):
    info = {"sessionInfoSessionID": GLib.Variant("u", 1), "sessionInfoClientType": GLib.Variant("i", client_type),
            "sessionInfoRequireUserInfo": GLib.Variant("b", True), "sessionInfoBatchEvent": GLib.Variant("b", True)}
    if family is not None:
        info["sessionInfoHierarchyToken"] = GLib.Variant("a{sv}", {
            "hierarchyTokenTokenID": GLib.Variant("s", f"family {family}"),
            "hierarchyTokenLevel": GLib.Variant("u", level)})
    user = {"userInfoClientName": GLib.Variant("s", f"soak {client_type}"),
            "userInfoServiceName": GLib.Variant("s", "soak")}
    return call_bytes("setSessionInfo", GLib.Variant("(a{sv}aa{sv}asb)", (info, [user], [], False)))


def event_bytes(flag):
    message = {"messageParametersCategory": GLib.Variant("u", 2), "messageParametersType": GLib.Variant("u", 7),
               "messageParametersFlag": GLib.Variant("i", flag),
               "messageParametersPayload": GLib.Variant("a{sv}", {
                   "u": GLib.Variant("s", f"{NAME}.{NUMBER}"), "screen": GLib.Variant("s", "settings/network"),
                   "milliseconds": GLib.Variant("i", 1234), "signal": GLib.Variant("d", -67.5)})}
    return call_bytes("sendMessageWithDictionary", GLib.Variant("(a{sv})", (message,)))


EVENT, URGENT_EVENT = event_bytes(0), event_bytes(REALTIME)
START, FLUSH, FINISH = (call_bytes(member, None) for member in (
    "startConfigWithCompletionHandler", "flushMessagesWithCompletion", "finishSessionGracefully"))


def aligned(offset, to):
    return (offset + to - 1) // to * to


def serial_answered(message):
    """The serial that a reply answers, from its header's fields."""
    offset, end = 16, 16 + struct.unpack_from("<I", message, 12)[0]
    while offset < end:
        offset = aligned(offset, 8)
        code, kind = message[offset], message[offset + 2:offset + 3]
        offset += 4
        if kind == b"g":
            offset += message[offset] + 2
            continue
        offset = aligned(offset, 4)
        value = struct.unpack_from("<I", message, offset)[0]
        if code == 5:
            return value
        offset += 4 if kind == b"u" else 4 + value + 1
    return None


def has_error(body):
    """Of a flush: `as` result, `a(sis)` error."""
    at = aligned(4 + struct.unpack_from("<I", body)[0], 4)
    return struct.unpack_from("<I", body, at)[0] > 0


class Client:
    """One session. Its calls are bytes made before, with a serial of their own."""

    def __init__(self, path, name):
        self.name = f"{name:08}"
        self.serial = 0
        self.number = 0  # of the next event
        self.buffer = b""
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        while b"\r\n" not in self.buffer:
            self.buffer += self.read()
        self.buffer = b""
        self.socket.sendall(b"BEGIN\r\n")

    def read(self):
        if not (more := self.socket.recv(65536)):
            raise ConnectionError("the daemon closed the connection")
        return more

    def numbered(self, message):
        self.serial += 1
        return message[:8] + struct.pack("<I", self.serial) + message[12:]

    def events(self, count, message=EVENT):
        block = []
        for _ in range(count):
            text = f"{self.name}.{self.number:06}".encode()
            block.append(self.numbered(message.replace(f"{NAME}.{NUMBER}".encode(), text)))
            self.number += 1
        return b"".join(block)

    def call(self, message, before=b""):
        """Sends what goes before it too, and gives the body of its own answer; none for an error."""
        message = self.numbered(message)
        self.socket.sendall(before + message)
        while True:
            while len(self.buffer) < 16 or len(self.buffer) < (size := self.frame_bytes()):
                self.buffer += self.read()
            frame, self.buffer = self.buffer[:size], self.buffer[size:]
            if serial_answered(frame) == self.serial:
                body = frame[size - struct.unpack_from("<I", frame, 4)[0]:]
                return body if frame[1] == 2 else None

    def frame_bytes(self):
        body, fields = struct.unpack_from("<I", self.buffer, 4)[0], struct.unpack_from("<I", self.buffer, 12)[0]
        return aligned(16 + fields, 8) + body


class Life:
    """What one client does until its time is over."""

    def __init__(self, path, name, rng, log):
        self.rng = rng
        self.log = log
        self.kind = rng.choices(list(KINDS), KINDS.values())[0]
        self.end = time.monotonic() + rng.uniform(1, LONGEST_LIFE)
        self.client = Client(path, name)

    def write(self, word, first=0):
        line = f"{word} {self.client.name} {first} {self.client.number}\n"
        os.write(self.log, line.encode())  # one call: nobody's line gets into another's

    def pause(self, longest):
        time.sleep(max(0.0, min(self.rng.uniform(0, longest), self.end - time.monotonic())))

    def live(self):
        client = self.client
        if self.kind != "idles":
            family = self.rng.randrange(40) if self.kind == "has a family" else None
            client_type = self.rng.choice(CLIENT_TYPES)
            client.call(START, client.numbered(session_bytes(client_type, family, self.rng.randrange(4))))
        while time.monotonic() < self.end:
            if self.kind in ("reports", "has a family"):
                self.report()
            elif self.kind == "is urgent":
                client.call(FLUSH, client.events(self.rng.randrange(1, 4), URGENT_EVENT))
            elif self.kind == "never reads":
                client.socket.sendall(client.events(5) + client.numbered(FLUSH))
            elif self.kind == "stops half-way":
                half = client.events(2)
                client.socket.sendall(half[:len(half) * 3 // 4])
                time.sleep(LONGEST_LIFE)
            self.pause(4)
        if self.kind == "reports" and self.rng.random() < 0.5:
            client.call(FINISH)

    def report(self):
        client = self.client
        first = client.number
        body = client.call(FLUSH, client.events(self.rng.randrange(1, 40)))
        is_posted = body is not None and not has_error(body)
        if self.kind == "reports":  # with a family, it shares its parent's state: events may be dropped
            self.write("posted" if is_posted else "failed", first)
        if not is_posted:
            client.call(START)  # a server's 5xx has turned the backend off


def be_a_client(path, name, seed, log):
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    life = None
    try:
        life = Life(path, name, random.Random(f"{seed} {name}"), log)
        life.live()
    except OSError:
        os.write(log, b"lost\n")
    os._exit(0)


def main():
    path, count, seconds, seed, log_path = sys.argv[1:]
    log = os.open(log_path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)
    rng = random.Random(seed)
    end = time.monotonic() + float(seconds)
    deaths = {}  # when a client is killed, by its process; for half of them after their own end
    born = killed = 0
    while time.monotonic() < end:
        for _ in range(min(int(count) - len(deaths), MOST_BORN_AT_ONCE)):
            born += 1
            if (child := os.fork()) == 0:
                be_a_client(path, born, seed, log)
            deaths[child] = time.monotonic() + rng.uniform(1, 2 * LONGEST_LIFE)
        for child in [child for child, when in deaths.items() if when < time.monotonic()]:
            os.kill(child, signal.SIGKILL)
            killed += 1
            os.waitpid(child, 0)
            del deaths[child]
        while deaths and (ended := os.waitpid(-1, os.WNOHANG)[0]):
            del deaths[ended]
        time.sleep(0.1)
    for child in deaths:
        os.kill(child, signal.SIGKILL)
        killed += 1
        os.waitpid(child, 0)
    print(born, killed, flush=True)


if __name__ == "__main__":
    main()
