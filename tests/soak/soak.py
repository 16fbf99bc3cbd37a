#!/usr/bin/python3
"""A bad day of the real daemon: clients that connect, report, hang and die, and servers that fail at random.

    cmake --preset release && cmake --build build/release --target zunreportingd zunreportingctl zunstorebag
    tests/soak/soak.py build/release [--minutes 10] [--clients 500] [--seed 1]

Servers drip, never answer, close after the headers, answer 503, refuse TLS, close kept connections. In the end, with
clients gone and servers well: what was promised to clients (a flush answered without an error) has come, nothing came
a third time, or twice without a kept connection that closed unanswered, and the daemon's descriptors, threads and
memory are back where they began. Exits with 0 if so.
"""

import argparse
import collections
import json
import os
import pathlib
import resource
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
NAMES = ("confero", "tessel", "flumina", "telvane", "sonoriva", "hintwell", "quorlytics", "scribnet")
# Of a daemon that has never had a client: its libraries' tables, certificates, storebags, two heaps' leftovers.
MEMORY_MARGIN = 16  # MiB
DESCRIPTOR_MARGIN = 1  # a timer, made when it is first wanted
THREAD_MARGIN = 1  # one that waits for clients' calls, from the first client on
DESCRIPTORS = 8192


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("binaries", nargs="?", default=os.environ.get("ZUN_BINARY_DIR", "build/dev"))
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--clients", type=int, default=500, help="at any time")
    parser.add_argument("--seed", default="1", help="of who does what when; the machine's timing is another matter")
    parser.add_argument("--settle", type=float, default=120, metavar="SECONDS",
                        help="that the daemon has to be back where it began; 0: that is not asked")
    return parser.parse_args()


options = arguments()
os.environ["ZUN_BINARY_DIR"] = os.path.abspath(options.binaries)
sys.dont_write_bytecode = True
sys.path.insert(0, str(HERE.parent / "integration"))

from harness import Scratch, client_entry  # noqa: E402
from test_budgets import resident_mib  # noqa: E402


class Servers:
    """sink.py as a process."""

    def __init__(self, scratch):
        authority = scratch.authority
        self.process = subprocess.Popen(
            [sys.executable, HERE / "sink.py", authority.certificate, authority.key, str(len(NAMES)), options.seed],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.ports = json.loads(self.process.stdout.readline())

    def ask(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def close(self):
        self.process.kill()
        self.process.communicate()


class State:
    """What the daemon holds of the machine."""

    def __init__(self, pid):
        self.memory = resident_mib(pid)
        self.files = [file for number in os.listdir(f"/proc/{pid}/fd") if (file := self.target(pid, number))]
        self.descriptors = len(self.files)
        self.threads = len(os.listdir(f"/proc/{pid}/task"))

    @staticmethod
    def target(pid, number):
        try:
            return os.readlink(f"/proc/{pid}/fd/{number}")
        except OSError:  # closed meanwhile
            return None

    def is_back(self, start):
        return (self.memory <= start.memory + MEMORY_MARGIN and
                self.descriptors <= start.descriptors + DESCRIPTOR_MARGIN and
                self.threads <= start.threads + THREAD_MARGIN)

    def __str__(self):
        return f"{self.memory:6.1f} MiB {self.descriptors:5} descriptors {self.threads:4} threads"


def say(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


def start_daemon(scratch, servers):
    for name, port in zip(NAMES, servers.ports):
        entry = client_entry(post_url=f"https://localhost:{port}/post", event_threshold=499)
        scratch.publish(name, backends={"httpPost": {"clients": [entry]}})
    return scratch.start("--max-connections-per-user", "4096", level="default")


def run_clients(scratch, servers, pid, log):
    """The bad day itself. Gives how many clients there were, how many of them were killed, and the peak."""
    seconds = options.minutes * 60
    environment = {**os.environ, "PYTHONPATH": str(HERE.parent / "integration"), "PYTHONDONTWRITEBYTECODE": "1"}
    clients = subprocess.Popen(
        [sys.executable, HERE / "clients.py", scratch.socket, str(options.clients), str(seconds), options.seed, log],
        stdout=subprocess.PIPE, text=True, env=environment)
    peak = State(pid)
    next_line = time.monotonic() + 15
    while clients.poll() is None:
        now = State(pid)
        peak.memory, peak.descriptors, peak.threads = (max(getattr(peak, what), getattr(now, what)) for what in (
            "memory", "descriptors", "threads"))
        if time.monotonic() >= next_line:
            next_line += 15
            counted = servers.ask("count")
            say(f"{now}  {counted['posts']:7} posts {counted['events']:8} events")
        time.sleep(0.5)
    born, killed = clients.communicate()[0].split()
    if clients.returncode != 0:
        raise AssertionError(f"the clients ended with {clients.returncode}")
    return int(born), int(killed), peak


def settle(pid, start):
    end = time.monotonic() + options.settle
    state = State(pid)
    while not state.is_back(start) and time.monotonic() < end:
        time.sleep(1)
        state = State(pid)
    say(f"{state}  {options.settle - (end - time.monotonic()):.0f} s after the last client")
    return state


def wait_for_posts(servers):
    """Until no more come: those whose clients have gone are sent all the same."""
    before, now = -1, servers.ask("count")["posts"]
    while now > before:
        time.sleep(5)
        before, now = now, servers.ask("count")["posts"]


def words(path):
    with open(path, encoding="ascii") as file:
        return collections.Counter(line.split()[0] for line in file)


def error_kinds(daemon):
    """Error lines by how they begin, the commonest first."""
    kinds = collections.Counter(line[:100] for line in daemon.errors())
    return [f"{count:7} {kind}" for kind, count in kinds.most_common(12)]


def problems_of(verdict, lost, code, start, state):
    problems = [f"{verdict[what]} {what}" for what in ("missing", "promised, not answered", "more often",
                                                       "twice, unexplained") if verdict[what]]
    if not verdict["promised"]:
        problems.append("nothing was promised")
    if lost:
        problems.append(f"{lost} clients lost their connection")
    if code != 0:
        problems.append(f"the daemon ended with {code}")
    if state is not None and not state.is_back(start):
        more = collections.Counter(state.files) - collections.Counter(start.files)
        problems.append(f"it is not back where it began: {state}, with {sorted(more)}")
    return problems + verdict["examples"]


def main():
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(DESCRIPTORS, limit), limit))
    scratch = Scratch()
    servers = Servers(scratch)
    try:
        daemon = start_daemon(scratch, servers)
        pid = daemon.process.pid
        start = State(pid)
        say(f"{start}  at the start; seed {options.seed}")
        log = scratch.path("clients.log")
        born, killed, peak = run_clients(scratch, servers, pid, log)
        servers.ask("well")
        wait_for_posts(servers)
        state = settle(pid, start) if options.settle else None
        verdict = servers.ask(f"judge {log}")
        scratch.server.released.set()
        code = daemon.stop()
        lost = words(log)["lost"]
        print(f"\nstart  {start}\npeak   {peak}\nend    {state or 'not asked'}")
        print(f"clients {born}, of which killed {killed}; lost their connection {lost}")
        for what, number in verdict.items():
            print(f"{what:24} {number}")
        print("error lines of the daemon:", *error_kinds(daemon), sep="\n")
        problems = problems_of(verdict, lost, code, start, state)
        print("PASSED" if not problems else "FAILED\n" + "\n".join(problems))
        return 1 if problems else 0
    finally:
        servers.close()
        scratch.close()


if __name__ == "__main__":
    sys.exit(main())
