"""Runs the real daemon in a scratch root, with real servers and real clients around it.

What a test needs of the build tree comes in ZUN_BINARY_DIR; nothing is left behind.
"""

import gzip
import http.server
import json
import os
import pathlib
import plistlib
import queue
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import threading
import time
import unittest

BINARIES = pathlib.Path(os.environ["ZUN_BINARY_DIR"])
DEADLINE = 60.0  # seconds; only ever met by a failure
ERROR_PRIORITY = "error:"
# Written on the way of every first fetch: nothing is cached yet.
NOTHING_CACHED = "loadStorebagFromDisk: could not load storebag"


def binary(name):
    """Path of one of the programs that were built."""
    found = [p for p in BINARIES.rglob(name) if p.is_file() and os.access(p, os.X_OK)]
    if not found:
        raise FileNotFoundError(f"{name} was not built below {BINARIES}")
    return str(found[0])


def run(*command, check=True, timeout=DEADLINE, **options):
    result = subprocess.run(command, capture_output=True, text=True, timeout=timeout, check=False, **options)
    if check and result.returncode != 0:
        raise AssertionError(f"{command[0]} exited {result.returncode}:\n{result.stdout}{result.stderr}")
    return result


def wait_until(condition, what):
    """Waits for a condition of another process; time itself decides nothing."""
    end = time.monotonic() + DEADLINE
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.01)
    raise AssertionError(f"did not happen: {what}")


class Authority:
    """A certificate authority and a server certificate for localhost and an address."""

    def __init__(self, folder, name="ca", address="127.0.0.1"):
        folder = pathlib.Path(folder)
        self.ca = str(folder / f"{name}.pem")
        self.certificate = str(folder / f"{name}-server.pem")
        self.key = str(folder / f"{name}-server.key")
        ca_key = str(folder / f"{name}.key")
        request = str(folder / f"{name}-server.csr")
        extensions = folder / f"{name}-server.ext"
        extensions.write_text(f"subjectAltName=DNS:localhost,IP:{address}\n")
        new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
        run("openssl", "req", "-x509", *new_key, "-keyout", ca_key, "-out", self.ca, "-days", "4",
            "-subj", f"/CN=zunreporting test {name}")
        run("openssl", "req", *new_key, "-keyout", self.key, "-out", request, "-subj", "/CN=localhost")
        run("openssl", "x509", "-req", "-in", request, "-CA", self.ca, "-CAkey", ca_key, "-CAcreateserial",
            "-days", "4", "-extfile", str(extensions), "-out", self.certificate)


class Post:
    """One post as the server received it."""

    def __init__(self, path, headers, wire):
        self.path = path
        self.headers = headers
        self.wire = wire
        self.body = gzip.decompress(wire) if headers.get("Content-Encoding") == "gzip" else wire

    @property
    def json(self):
        return json.loads(self.body)

    @property
    def events(self):
        return self.json["events"]


class HTTPSServer:
    """A real HTTPS server. `files` are served by path; posts are recorded.

    `behaviour` maps a path to what the server does instead: a status number, "hang",
    "close" (in the middle of the answer) or a callable taking the request handler.
    """

    def __init__(self, authority, address="127.0.0.1"):
        self.files = {}
        self.behaviour = {}
        self.posts = queue.Queue()
        self.requests = []
        self.released = threading.Event()
        outer = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *_):
                pass

            def answer(self, status, body=b"", headers=()):
                self.send_response(status)
                for name, value in headers:
                    self.send_header(name, value)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def misbehave(self, path):
                behaviour = outer.behaviour.get(path)
                if behaviour is None:
                    return False
                if callable(behaviour):
                    behaviour(self)
                elif behaviour == "hang":
                    outer.released.wait(DEADLINE)
                    self.close_connection = True
                elif behaviour == "close":
                    self.send_response(200)
                    self.send_header("Content-Length", "1000")
                    self.end_headers()
                    self.wfile.write(b"part")
                    self.close_connection = True
                else:
                    self.answer(behaviour)
                return True

            def do_GET(self):
                path = self.path.split("?")[0]
                outer.requests.append((self.path, dict(self.headers)))
                if self.misbehave(path):
                    return
                if path not in outer.files:
                    self.answer(404)
                    return
                self.answer(200, outer.files[path], [("Cache-Control", "max-age=3600"),
                                                      ("Last-Modified", "Tue, 14 Nov 2023 22:13:20 GMT")])

            def do_POST(self):
                wire = self.rfile.read(int(self.headers.get("Content-Length", "0")))
                outer.posts.put(Post(self.path, dict(self.headers), wire))
                if not self.misbehave(self.path.split("?")[0]):
                    self.answer(200, b"{}")

        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(authority.certificate, authority.key)
        self.server = http.server.ThreadingHTTPServer((address, 0), Handler)
        self.server.daemon_threads = True
        self.server.handle_error = lambda *_: None
        self.server.socket = context.wrap_socket(self.server.socket, server_side=True,
                                                 do_handshake_on_connect=False)
        self.port = self.server.server_address[1]
        self.url = f"https://{'localhost' if address == '127.0.0.1' else address}:{self.port}"
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        self.thread.start()

    def next_post(self):
        return self.posts.get(timeout=DEADLINE)

    def all_posts(self):
        """What has come so far and was not taken yet."""
        taken = []
        while not self.posts.empty():
            taken.append(self.posts.get())
        return taken

    def close(self):
        self.released.set()
        self.server.shutdown()
        self.server.server_close()


def client_entry(**changes):
    """A storebag client entry that lets every event through."""
    entry = {
        "locale_whitelist": ["DE", "US"],
        "filters": [],
        "sampling_threshold": 1.0,
        "override_dnu": 1,
        "event_threshold": 49,
        "post_url": "==post_url",
    }
    entry.update(changes)
    return {key: value for key, value in entry.items() if value is not None}


def with_post_url(value, url):
    """`value` with `url` for "==post_url". Not left to a macro: its text always becomes a list."""
    if isinstance(value, dict):
        return {key: with_post_url(element, url) for key, element in value.items()}
    if isinstance(value, list):
        return [with_post_url(element, url) for element in value]
    return url if value == "==post_url" else value


class Scratch:
    """A root folder with keys, certificates, entitlements and settings for one daemon."""

    def __init__(self, address="127.0.0.1"):
        self.folder = tempfile.mkdtemp(prefix="zun-integration-")
        self.root = self.path("root")
        self.home = "/home/tester"
        for folder in ("root/etc/zunreportingd/entitlements.d", "root/usr/share/zunreportingd",
                       "root/home/tester/Library/Preferences", "root/tmp", "storebags"):
            os.makedirs(self.path(folder))
        self.authority = Authority(self.folder, address=address)
        self.private_key = self.path("signing.pem")
        run(binary("zunstorebag"), "keygen", "--private-key", self.private_key, "--public-key",
            self.path("root/usr/share/zunreportingd/publicKey.der"))
        self.write_plist("root/usr/share/zunreportingd/info.plist", {"version": "3.2.1"})
        self.write_plist("root/etc/zunreportingd/device.plist",
                         {"UniqueDeviceID": "TEST-DEVICE", "ProductVersion": "12.11", "BuildVersion": "21A329",
                          "ProductType": "Pallax12,3", "DeviceName": "Test Pallax", "SerialNumber": "C39",
                          "HWModelStr": "N841AP"})
        self.entitle({"user": os.getuid(), "entitlements": {"com.vantix.private.zunreportingd": True}})
        self.server = HTTPSServer(self.authority, address)
        self.set_defaults("com.vantix.zunreporting", {"zunreporting_storebag_url": self.server.url})
        self.daemon = None

    def path(self, relative):
        return os.path.join(self.folder, relative)

    def write_plist(self, relative, value):
        with open(self.path(relative), "wb") as file:
            plistlib.dump(value, file, fmt=plistlib.FMT_BINARY, sort_keys=False)

    def change_plist(self, relative, changes):
        with open(self.path(relative), "rb") as file:
            self.write_plist(relative, {**plistlib.load(file), **changes})

    def entitle(self, *rules):
        self.write_plist("root/etc/zunreportingd/entitlements.d/test.plist", list(rules))

    def set_defaults(self, suite, values):
        self.write_plist(f"root/home/tester/Library/Preferences/{suite}.plist", values)

    def sign(self, name, inner, out=None):
        """The envelope of `inner`, a dictionary; also put on the server."""
        source = self.path(f"{name}.inner.plist")
        with open(source, "wb") as file:
            plistlib.dump(inner, file, sort_keys=False, fmt=plistlib.FMT_BINARY)
        envelope = out or self.path(f"storebags/{name}")
        run(binary("zunstorebag"), "sign", "--key", self.private_key, "--output", envelope, source)
        with open(envelope, "rb") as file:
            self.server.files[f"/{name}"] = file.read()
        return envelope

    def publish(self, name="confero", post_path="/post", backends=None, **inner):
        """Signs and serves a storebag whose httpPost backend posts to this server."""
        section = backends if backends is not None else {"httpPost": {"clients": [client_entry()]}}
        bag = {environment: section for environment in ("development", "vantix_internal", "seed", "release")}
        bag["version"] = "1.0"
        bag.update(inner)
        return self.sign(name, with_post_url(bag, self.server.url + post_path))

    @property
    def socket(self):
        return self.path("root/run/zunreportingd/com.vantix.zunreportingd")

    @property
    def address(self):
        return "unix:path=" + self.socket

    def start(self, *options, level="debug", environment=None, journal=None):
        self.daemon = Daemon(self, options, level, environment or {}, journal)
        return self.daemon

    def send(self, events, *options, check=True):
        """Reports events with the command line client."""
        lines = "".join(json.dumps(event) + "\n" for event in events)
        return run(binary("zunreportingctl"), "--address", self.address, "send", "--client-name", "tester",
                   "--service-name", "bench", *options, input=lines, check=check)

    def close(self):
        if self.daemon:
            self.daemon.kill()
        self.server.close()
        shutil.rmtree(self.folder, ignore_errors=True)


class Journal:
    """Stands in for the journal below a root. It reads while `may_read` is set."""

    PRIORITIES = {b"7": "debug", b"5": "default", b"3": "error"}

    def __init__(self, root):
        folder = os.path.join(root, "run/systemd/journal")
        os.makedirs(folder)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(os.path.join(folder, "socket"))
        self.socket.settimeout(0.05)
        self.may_read = threading.Event()
        self.may_read.set()

    def lines(self, process):
        """What `process` writes as lines of a log, until it has ended and all has been read."""
        with self.socket:
            while True:
                self.may_read.wait()
                has_ended = process.poll() is not None
                try:
                    yield self.line(self.socket.recv(1 << 20))
                except TimeoutError:
                    if has_ended:
                        return

    def line(self, entry):
        fields = {}
        while entry:
            name, entry = entry.split(b"\n", 1)
            size = int.from_bytes(entry[:8], "little")
            fields[name] = entry[8:8 + size]
            entry = entry[8 + size + 1:]
        return f"zunreportingd {self.PRIORITIES[fields[b'PRIORITY']]}: {fields[b'MESSAGE'].decode()}"


class Daemon:
    """The daemon as a process. Its log lines are kept."""

    def __init__(self, scratch, options, level, environment, journal):
        self.lines = []
        self.changed = threading.Condition()
        env = {"HOME": scratch.home, "LANG": "de_DE.UTF-8", "PATH": os.environ["PATH"]}
        for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
            if name in os.environ:
                env[name] = os.environ[name]
        env.update(environment)
        self.process = subprocess.Popen(
            [binary("zunreportingd"), "--root", scratch.root, "--ca-file", scratch.authority.ca,
             "--log-level", level, "--log-target", "journal" if journal else "stderr", *options],
            stderr=subprocess.PIPE, text=True, env=env)
        self.source = journal.lines(self.process) if journal else self.process.stderr
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()
        scratch.daemon = self  # to be looked at and ended, whether it starts or not
        self.wait_for_line("main: Listener resumes with sandbox, start loop.")

    def read(self):
        for line in self.source:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.lines.append("(end of log)")
            self.changed.notify_all()

    def has_line(self, text):
        with self.changed:
            return any(text in line for line in self.lines)

    def wait_for_line(self, text, count=1):
        with self.changed:
            met = self.changed.wait_for(
                lambda: sum(text in line for line in self.lines) >= count or self.lines[-1:] == ["(end of log)"],
                DEADLINE)
            if not met or sum(text in line for line in self.lines) < count:
                raise AssertionError(f"no line {text!r} in:\n" + "\n".join(self.lines[-40:]))

    def errors(self):
        """Texts of the error lines so far."""
        with self.changed:
            return [line.split(ERROR_PRIORITY, 1)[1].strip() for line in self.lines
                    if ERROR_PRIORITY in line.split(" ", 2)[1:2]]

    def stop(self):
        """SIGTERM, and the exit code."""
        self.process.send_signal(signal.SIGTERM)
        return self.wait()

    def wait(self):
        code = self.process.wait(DEADLINE)
        self.reader.join(DEADLINE)
        self.process.stderr.close()
        return code

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.wait()


class Collector:
    """zuncollector as a process. `url` and `dashboard` (an address) are where it serves."""

    def __init__(self, folder, authority, *options, storebags=None, output=None, **popen):
        self.output = output or os.path.join(folder, "received.ndjson")
        self.uploads = os.path.join(folder, "uploads")
        os.makedirs(self.uploads, exist_ok=True)
        port, dashboard_port = (os.path.join(folder, name) for name in ("port", "dashboard-port"))
        command = [binary("zuncollector"), "--cert", authority.certificate, "--key", authority.key,
                   "--storebags", storebags or folder, "--output", self.output, "--port-file", port,
                   "--dashboard-port", "0", "--dashboard-port-file", dashboard_port,
                   "--uploads", self.uploads, *options]
        self.log = open(os.path.join(folder, "collector.log"), "w+", encoding="utf-8")
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=self.log, text=True, **popen)

        def number_in(path):
            if self.process.poll() is not None:
                raise AssertionError(f"the collector ended: {self.errors()}")
            if not os.path.exists(path):
                return None
            with open(path, encoding="ascii") as file:
                text = file.read()
            return int(text) if text.endswith("\n") else None

        self.url = f"https://localhost:{wait_until(lambda: number_in(port), 'a port')}"
        self.dashboard = ("127.0.0.1", wait_until(lambda: number_in(dashboard_port), "a dashboard port"))

    def records(self, way=None):
        """What has been received so far, of one way or all."""
        with open(self.output, encoding="utf-8") as file:
            lines = [json.loads(line) for line in file.read().split("\n")[:-1]]
        return [line for line in lines if way is None or line.get("_way") == way]

    def wait_for_records(self, count, way):
        wait_until(lambda: len(self.records(way)) >= count, f"{count} records of the way {way}")
        return self.records(way)

    def errors(self):
        with open(self.log.name, encoding="utf-8") as file:
            return file.read()

    def stop(self):
        """The numbers of the summary, by name."""
        self.process.send_signal(signal.SIGTERM)
        summary, _ = self.process.communicate(timeout=DEADLINE)
        if self.process.returncode != 0:
            raise AssertionError(f"the collector exited {self.process.returncode}: {self.errors()}")
        return {name: int(number) for name, number in (line.split() for line in summary.splitlines())}

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.communicate(timeout=DEADLINE)
        self.log.close()


class ScratchTest(unittest.TestCase):
    """A test with a scratch root of its own. An error line that it did not expect fails it."""

    server_address = "127.0.0.1"

    def setUp(self):
        self.scratch = Scratch(self.server_address)
        self.addCleanup(self.scratch.close)
        self.expected_errors = []

    def expect_error(self, text):
        """The daemon is to write an error line that contains `text`."""
        self.expected_errors.append(text)

    def tearDown(self):
        if self.scratch.daemon is None:
            return
        self.scratch.server.released.set()
        if self.scratch.daemon.process.poll() is None:
            self.assertEqual(self.scratch.daemon.stop(), 0)
        for report in ("Sanitizer", "runtime error:"):
            self.assertFalse(self.scratch.daemon.has_line(report), "\n".join(self.scratch.daemon.lines[-60:]))
        for line in self.scratch.daemon.errors():
            self.assertTrue(any(text in line for text in (NOTHING_CACHED, *self.expected_errors)),
                            f"unexpected error line: {line}")
        for text in self.expected_errors:
            self.assertTrue(any(text in line for line in self.scratch.daemon.errors()),
                            f"no error line contains: {text}")


def raw_connection(path):
    """A socket to the daemon that has authenticated, ready for messages."""
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.settimeout(DEADLINE)
    peer.connect(path)
    peer.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
    answer = peer.recv(100)
    if not answer.startswith(b"OK "):
        raise AssertionError(f"authentication refused: {answer!r}")
    peer.sendall(b"BEGIN\r\n")
    return peer
