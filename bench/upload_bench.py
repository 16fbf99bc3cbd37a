#!/usr/bin/python3
"""File uploads through the real daemon beside `gzip | curl`, to the same server, in one run.

    cmake --preset release && cmake --build build/release
    bench/upload_bench.py build/release

Prints MiB of the file per second (the best of several rounds), and what the daemon took.
"""

import http.server
import os
import pathlib
import random
import ssl
import subprocess
import sys
import threading
import time

os.environ["ZUN_BINARY_DIR"] = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/release")
sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "integration"))

from harness import Scratch  # noqa: E402
from test_uploads import Client  # noqa: E402

MIB = 1 << 20
ROUNDS = 3
TICK = os.sysconf("SC_CLK_TCK")


class Sink:
    """Reads what is posted and keeps nothing."""

    def __init__(self, authority):
        outer = self
        self.bytes = 0

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *_):
                pass

            def pieces(self):
                if "chunked" in self.headers.get("Transfer-Encoding", ""):
                    while length := int(self.rfile.readline(), 16):
                        yield self.rfile.read(length)
                        self.rfile.readline()
                    self.rfile.readline()
                    return
                left = int(self.headers["Content-Length"])
                while left:
                    piece = self.rfile.read(min(left, MIB))
                    left -= len(piece)
                    yield piece

            def do_POST(self):
                outer.bytes = sum(len(piece) for piece in self.pieces())
                self.send_response(200)
                self.send_header("Content-Length", "2")
                self.end_headers()
                self.wfile.write(b"ok")

        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(authority.certificate, authority.key)
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.server.socket = context.wrap_socket(self.server.socket, server_side=True, do_handshake_on_connect=False)
        self.url = f"https://localhost:{self.server.server_address[1]}/upload"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()


def log_lines(size):
    """Lines as a log has them: much alike, never the same."""
    draw = random.Random(7)
    text = bytearray()
    while len(text) < size:
        text += (f"2026-01-{draw.randrange(1, 29):02} {draw.random():.6f} service[{draw.randrange(99999)}]: "
                 f"request {draw.getrandbits(48):x} took {draw.randrange(5000)} ms, status {draw.choice((200, 404))}\n"
                 ).encode()
    return bytes(text[:size])


def write(path, contents, size):
    with open(path, "wb") as file:
        file.write(contents)
        file.truncate(size)


def best(action):
    times = []
    for _ in range(ROUNDS):
        begin = time.monotonic()
        action()
        times.append(time.monotonic() - begin)
    return min(times)


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def peak_mib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmHWM"):
            return int(line.split()[1]) / 1024
    return 0.0


def measure(scratch, sink, name, contents, size):
    path = scratch.path("file")
    write(path, contents, size)
    daemon = scratch.start(level="default")
    client = Client(scratch.address)
    pid = daemon.process.pid
    begin = cpu_seconds(pid)
    took = best(lambda: client.upload(path) or sys.exit("the upload failed"))
    cpu = (cpu_seconds(pid) - begin) / ROUNDS
    sent, peak = sink.bytes, peak_mib(pid)
    client.close()
    daemon.stop()
    command = (f"gzip -c '{path}' | curl -sS --cacert '{scratch.authority.ca}' -H 'Content-Encoding: gzip' "
               f"-H 'Content-Type: application/octet-stream' --data-binary @- '{sink.url}' > /dev/null")
    shell = best(lambda: subprocess.run(["bash", "-o", "pipefail", "-c", command], check=True))
    print(f"{name:22} {size / MIB:8.0f} {sent / MIB:10.1f} {size / MIB / took:14.1f} {size / MIB / shell:17.1f} "
          f"{cpu:11.2f} {peak:9.1f}")


def main():
    scratch = Scratch()
    try:
        sink = Sink(scratch.authority)
        scratch.publish(backends={"uploadServer": {"post_url": sink.url}})
        print(f"{'file':22} {'MiB':>8} {'sent MiB':>10} {'daemon MiB/s':>14} {'gzip|curl MiB/s':>17} "
              f"{'daemon s':>11} {'peak MiB':>9}")
        measure(scratch, sink, "log lines", log_lines(64 * MIB), 64 * MIB)
        measure(scratch, sink, "noise", random.Random(8).randbytes(48 * MIB), 48 * MIB)
        measure(scratch, sink, "small (10 KiB)", log_lines(10 << 10), 10 << 10)
        measure(scratch, sink, "sparse", b"", 1024 * MIB)
    finally:
        scratch.close()


if __name__ == "__main__":
    main()
