#!/usr/bin/python3
"""Memory of the real daemon before a burst of clients, at its peak, and when they have gone.

    cmake --preset release && cmake --build build/release
    bench/memory_bench.py build/release [--clients 150] [--events 200] [--seconds 60]

The clients connect at once, each batches its events and sends a megabyte of small structs that is
refused; then all leave. Prints anonymous resident memory in MiB.
"""

import argparse
import os
import pathlib
import sys
import time

parser = argparse.ArgumentParser(description="memory before, at the peak of and after a burst of clients")
parser.add_argument("binaries", nargs="?", default="build/release")
parser.add_argument("--clients", type=int, default=150)
parser.add_argument("--events", type=int, default=200, help="of each client")
parser.add_argument("--seconds", type=int, default=60, help="after the last client has gone")
arguments = parser.parse_args()

os.environ["ZUN_BINARY_DIR"] = os.path.abspath(arguments.binaries)
sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "integration"))

from gi.repository import GLib  # noqa: E402

from harness import Scratch, raw_connection  # noqa: E402
from test_budgets import (MIB, call_bytes, configuration, resident_mib, structs_of_one_byte)  # noqa: E402


def event(number):
    payload = {f"key{key}": GLib.Variant("s", f"value {number} of {key}") for key in range(20)}
    return GLib.Variant("(a{sv})", ({"messageParametersCategory": GLib.Variant("u", 2),
                                     "messageParametersType": GLib.Variant("u", 7),
                                     "messageParametersPayload": GLib.Variant("a{sv}", payload)},))


def burst(scratch, pid):
    """Memory at the peak, as far as looks between the clients' turns tell."""
    begin = (call_bytes("setSessionInfo", configuration(), expects_reply=False) +
             call_bytes("startConfigWithCompletionHandler", None, expects_reply=False))
    events = b"".join(call_bytes("sendMessageWithDictionary", event(number), expects_reply=False)
                      for number in range(arguments.events))
    large = call_bytes("setSessionInfo", configuration({"large": structs_of_one_byte(MIB - 4096)}), serial=2)
    clients = []
    peak = 0
    for _ in range(arguments.clients):
        client = raw_connection(scratch.socket)
        clients.append(client)
        client.sendall(begin + events)
    for client in clients:
        client.sendall(large)
        peak = max(peak, resident_mib(pid))
    for client in clients:
        client.recv(1)
        peak = max(peak, resident_mib(pid))
    for client in clients:
        client.close()
    return peak


def main():
    scratch = Scratch()
    try:
        scratch.publish()
        pid = scratch.start(level="default").process.pid
        print(f"before: {resident_mib(pid):8.1f} MiB")
        print(f"peak:   {burst(scratch, pid):8.1f} MiB")
        for second in range(arguments.seconds + 1):
            if second in (1, arguments.seconds // 2, arguments.seconds):
                print(f"{second:4} s after: {resident_mib(pid):8.1f} MiB")
            time.sleep(1)
    finally:
        scratch.close()


if __name__ == "__main__":
    main()
