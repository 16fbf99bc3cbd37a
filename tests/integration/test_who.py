"""Who is served: nobody gives itself out for somebody else, and no stranger is in the way of the entitled."""

import os
import shutil
import socket
import subprocess
import sys
import unittest

from harness import DEADLINE, ScratchTest, raw_connection

ENTITLEMENTS = {"com.vantix.private.zunreportingd": True}
NOBODY = 65534

# A process that connects, leaves the socket to its child and becomes another program. The child
# waits for that, authenticates as its parent's user and says what came of it.
HAND_OVER = """
import os, socket, sys
path, program, begins_first = sys.argv[1:4]
peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
parent = os.getpid()
gate = os.pipe()
if os.fork() == 0:
    os.close(gate[1])
    os.read(gate[0], 1)  # ends with the exec
    answer = b""
    try:
        peer.settimeout(60)
        if begins_first != "yes":
            peer.sendall(b"\\0AUTH EXTERNAL\\r\\n")
        peer.sendall(b"DATA\\r\\nBEGIN\\r\\n" + bytes.fromhex(sys.argv[4]))
        part = b"DATA"
        # Behind "OK" and 32 digits stands what was answered to the call.
        while part and not answer.partition(b"OK ")[2][34:]:
            part = peer.recv(4096)
            answer += part
    except OSError:
        pass
    print("served" if answer.partition(b"OK ")[2][34:] else "refused", flush=True)
    os.kill(parent, 9)
    os._exit(0)
peer.connect(path)
if begins_first == "yes":
    peer.sendall(b"\\0AUTH EXTERNAL\\r\\n")
    peer.recv(100)  # it was let in as what it still is
os.execv(program, [program, "60"])
"""


def call(member):
    """The bytes of a call of the session that wants an answer."""
    def text(value):
        return len(value).to_bytes(4, "little") + value.encode() + b"\0"

    fields = b""
    for code, signature, value in ((1, "o", "/com/vantix/zunreportingd/session"),
                                   (2, "s", "com.vantix.zunreportingd.ClientSessionInterface"),
                                   (3, "s", member)):
        fields += b"\0" * (-len(fields) % 8)
        fields += bytes([code, 1]) + signature.encode() + b"\0" + text(value)
    header = b"l\1\0\1" + (0).to_bytes(4, "little") + (1).to_bytes(4, "little")
    header += len(fields).to_bytes(4, "little") + fields
    return header + b"\0" * (-len(header) % 8)


class WhoTest(ScratchTest):
    def setUp(self):
        super().setUp()
        # Others have to get at the socket.
        os.chmod(self.scratch.folder, 0o755)

    def hand_over(self, program, user=None, begins_first="no"):
        """What the child of a process got that connected and became `program`."""
        def become():
            if user is not None:
                os.setgid(user)
                os.setuid(user)

        result = subprocess.run([sys.executable, "-c", HAND_OVER, self.scratch.socket, program, begins_first,
                                 call("fetchDisplayURL").hex()], capture_output=True, text=True,
                                timeout=DEADLINE, preexec_fn=become, check=False)
        self.assertIn(result.stdout.strip(), ("served", "refused"), result.stderr)
        return result.stdout.strip()

    def is_served(self):
        try:
            with raw_connection(self.scratch.socket) as peer:
                peer.sendall(call("fetchDisplayURL"))
                return bool(peer.recv(100))
        except (OSError, AssertionError):
            return False

    @unittest.skipIf(os.getuid() != 0, "takes two users")
    def test_becoming_the_entitled_program_makes_nobody_its_user(self):
        sleep = os.path.realpath(shutil.which("sleep"))
        self.scratch.entitle({"user": os.getuid(), "executable": sleep, "entitlements": ENTITLEMENTS})
        self.scratch.start()
        for _ in range(20):
            self.assertEqual(self.hand_over(sleep, NOBODY), "refused")
        self.scratch.daemon.wait_for_line(f", user {NOBODY}, ")

    def test_an_executable_alone_is_refused_with_its_file(self):
        sleep = os.path.realpath(shutil.which("sleep"))
        self.scratch.entitle({"executable": sleep, "entitlements": ENTITLEMENTS},
                             {"user": os.getuid(), "entitlements": ENTITLEMENTS})
        self.expect_error("entitlements.d/test.plist is ignored: rule 1: it has neither 'user' nor 'group', "
                          "and an executable alone authenticates nobody")
        self.scratch.start()
        self.assertTrue(self.scratch.daemon.errors())  # at the start, not with the first connection
        for _ in range(20):
            self.assertEqual(self.hand_over(sleep), "refused")

    def test_who_is_another_program_once_authenticated_is_turned_away(self):
        python = os.path.realpath(sys.executable)
        self.scratch.entitle({"user": os.getuid(), "executable": python, "entitlements": ENTITLEMENTS})
        self.scratch.start()
        self.assertTrue(self.is_served())
        self.assertEqual(self.hand_over(os.path.realpath(shutil.which("sleep")), begins_first="yes"), "refused")
        self.scratch.daemon.wait_for_line("is refused: it is no longer entitled")

    def python_at(self, name):
        path = os.path.realpath(self.scratch.path(name))
        shutil.copy(os.path.realpath(sys.executable), path)
        return path

    def connect_with(self, *command):
        """Whether a client with this command line is served."""
        script = ("import socket, sys; s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); "
                  "s.sendall(b'\\0AUTH EXTERNAL\\r\\nDATA\\r\\n'); print(s.recv(100)[:4])")
        environment = {**os.environ, "PYTHONHOME": sys.base_prefix}
        result = subprocess.run([*command, "-c", script, self.scratch.socket], capture_output=True, text=True,
                                timeout=DEADLINE, env=environment, check=False)
        return "DATA" in result.stdout

    @unittest.skipIf(subprocess.run(["unshare", "-m", "true"], check=False, capture_output=True).returncode != 0,
                     "needs mount namespaces")
    def test_another_file_at_the_entitled_path_is_another_program(self):
        client, impostor = self.python_at("client"), self.python_at("impostor")
        self.scratch.entitle({"user": os.getuid(), "executable": client, "entitlements": ENTITLEMENTS})
        self.scratch.start()
        self.assertTrue(self.connect_with(client))
        self.assertFalse(self.connect_with(impostor))
        self.assertFalse(self.connect_with(
            "unshare", "-m", "sh", "-c", f'mount --bind {impostor} {client} && exec {client} "$@"', "sh"))
        self.assertTrue(self.connect_with("unshare", "-m", client))

    def test_a_client_that_was_replaced_on_disk_is_told_so(self):
        client = self.python_at("client")
        self.scratch.entitle({"user": os.getuid(), "executable": client, "entitlements": ENTITLEMENTS})
        self.scratch.start(level="default")
        replace = f"import os; os.remove({client!r}); "
        script = replace + ("import socket, sys; s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); "
                            "s.recv(1)")
        subprocess.run([client, "-c", script, self.scratch.socket], timeout=DEADLINE, check=True,
                       env={**os.environ, "PYTHONHOME": sys.base_prefix})
        self.scratch.daemon.wait_for_line(
            f"{client} (deleted) is refused: it is not entitled; its program has been replaced or removed")

    def test_strangers_hold_no_places_of_the_entitled(self):
        self.scratch.entitle({"user": os.getuid(), "executable": os.path.realpath(sys.executable),
                              "entitlements": ENTITLEMENTS})
        self.scratch.start(level="default")
        hold = ("import socket, sys\n"
                "held = []\n"
                "for _ in range(300):\n"
                "    held.append(socket.socket(socket.AF_UNIX)); held[-1].connect(sys.argv[1])\n"
                "print('held', flush=True); sys.stdin.read()")
        with subprocess.Popen([self.python_at("stranger"), "-c", hold, self.scratch.socket], text=True,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              env={**os.environ, "PYTHONHOME": sys.base_prefix}) as stranger:
            self.assertEqual(stranger.stdout.readline(), "held\n")
            for _ in range(100):
                self.assertTrue(self.is_served())
            self.scratch.daemon.wait_for_line("more connections are refused, the last of pid "
                                              f"{stranger.pid}, user {os.getuid()}, ")

    def test_another_program_of_the_same_user_finds_a_place(self):
        self.scratch.publish()
        self.scratch.start("--max-connections-per-user", "4")
        held = [raw_connection(self.scratch.socket) for _ in range(2)]
        self.addCleanup(lambda: [peer.close() for peer in held])
        with self.assertRaises((AssertionError, OSError)):
            raw_connection(self.scratch.socket)
        self.expect_error("is refused: the user has 2 connections already, 2 of them the program's")
        self.assertEqual(self.scratch.send([{"category": 2, "type": 1}], "--client-type", "7").returncode, 0)

    def test_what_a_client_may_claim_ends_with_its_rule(self):
        self.scratch.publish()
        rule = {"user": os.getuid(), "entitlements": ENTITLEMENTS, "clientTypes": [7],
                "clientNames": ["tester"], "hierarchies": "own"}
        self.scratch.entitle(rule)
        self.scratch.start()
        event = {"category": 2, "type": 1}
        self.assertEqual(self.scratch.send([event], "--client-type", "7").returncode, 0)
        for change, reason in (({"clientTypes": [8]}, "the client may not have client type 7"),
                               ({"clientNames": ["other"]}, "the client may not be named 'tester'")):
            self.scratch.entitle({**rule, **change})
            result = self.scratch.send([event], "--client-type", "7", check=False)
            self.assertEqual(result.returncode, 3)
            self.assertIn(reason, result.stderr)
            self.expect_error(f"zunreportingctl: {reason}")


if __name__ == "__main__":
    unittest.main()
