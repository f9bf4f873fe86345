#!/usr/bin/env python3
"""How fast pairing codes can be tried against the daemon, and what that makes of six digits.

guess_codes.py [--connections N] [--seconds S] [--reconnect] [DAEMON] [-- DAEMON-OPTIONS...]

Starts the daemon on loopback with a known code in a preference file of its own, tries other codes
over N connections at once, and at last lets a client in that knows the code. --reconnect: each
guess is on a connection of its own.
"""

import argparse
import json
import os
import pathlib
import selectors
import socket
import subprocess
import sys
import tempfile
import time

CODE = "999999"
CODES = 1_000_000
BATCH = 200  # Guesses on their way on one connection; fewer leave the daemon waiting.
PATIENCE = 90  # Seconds for the client that knows the code.
UPGRADE = (
    b"GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n"
)
ANSWER = b'"auth_result"'


def frame(text):
    """A masked text frame (RFC 6455, 5.2), with a mask of zeros."""
    assert len(text) < 126
    return bytes([0x81, 0x80 | len(text), 0, 0, 0, 0]) + text


def guess(number):
    return frame(b'{"cmd":"auth","token":"%06d"}' % (number % (CODES - 1)))


class Guesser:
    """A connection that always has guesses on their way; `limit`: in all, 0 for no end."""

    def __init__(self, port, first, limit):
        self.next, self.limit = first, limit
        self.answers = self.sent = 0
        self.rest = b""
        self.out = UPGRADE
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.socket.setblocking(False)
        self.more()

    def more(self):
        count = self.limit or BATCH
        self.out += b"".join(guess(self.next + i) for i in range(count))
        self.next += count
        self.sent += count

    def write(self):
        try:
            self.out = self.out[self.socket.send(self.out):]
        except BlockingIOError:
            pass

    def read(self):
        """The number of new answers, or None when the connection has ended."""
        try:
            data = self.socket.recv(1 << 18)
        except BlockingIOError:
            return 0
        except OSError:
            return None
        if not data:
            return None
        data = self.rest + data
        count = data.count(ANSWER)
        self.rest = data[-len(ANSWER) + 1:]
        self.answers += count
        if not self.limit and self.answers > self.sent - BATCH // 2:
            self.more()
        return count


def attack(port, connections, reconnect, watch):
    """Goes on until watch(guesses answered) is true."""
    selector = selectors.DefaultSelector()
    both = selectors.EVENT_READ | selectors.EVENT_WRITE
    first = answered = 0
    limit = 1 if reconnect else 0

    def connect():
        nonlocal first
        guesser = Guesser(port, first, limit)
        first += CODES // connections if not reconnect else 1
        selector.register(guesser.socket, both, guesser)

    def leave(guesser):
        selector.unregister(guesser.socket)
        guesser.socket.close()
        connect()

    for _ in range(connections):
        connect()
    while not watch(answered):
        for key, events in selector.select(timeout=0.1):
            guesser = key.data
            if events & selectors.EVENT_WRITE and guesser.out:
                guesser.write()
            count = guesser.read() if events & selectors.EVENT_READ else 0
            answered += count or 0
            if count is None or (limit and guesser.answers >= limit):
                leave(guesser)
            else:
                selector.modify(guesser.socket,
                                both if guesser.out else selectors.EVENT_READ, guesser)
    for key in list(selector.get_map().values()):
        key.fileobj.close()


class Watch:
    """After `seconds` of guesses lets the one come who knows the code, while the guesses go on."""

    def __init__(self, port, seconds):
        self.port, self.seconds = port, seconds
        self.begin = time.monotonic()
        self.owner = None
        self.answered = self.elapsed = 0

    def __call__(self, answered):
        if self.owner:
            return self.owner.poll() is not None
        self.elapsed = time.monotonic() - self.begin
        if self.elapsed >= self.seconds:
            self.answered = answered
            self.owner = subprocess.Popen(
                [sys.executable, __file__, "--owner", str(self.port)], stdout=subprocess.PIPE)
        return False


def owner(port):
    """Lets the one in who knows the code, and prints the seconds that took."""
    begin = time.monotonic()
    with socket.create_connection(("127.0.0.1", port), timeout=PATIENCE) as client:
        client.sendall(UPGRADE + frame(b'{"cmd":"auth","token":"%s"}' % CODE.encode()))
        data = b""
        while b'"ok":true' not in data:
            more = client.recv(4096)
            if not more:
                sys.exit("disconnected")
            data += more
    print(f"{time.monotonic() - begin:.2f}")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def duration(seconds):
    for unit, size in (("days", 86400), ("hours", 3600), ("minutes", 60)):
        if seconds > 2 * size:
            return f"{seconds / size:.1f} {unit}"
    return f"{seconds:.0f} s"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("daemon", nargs="?", default="build/release/bin/tarnlinkd")
    parser.add_argument("--connections", type=int, default=1)
    parser.add_argument("--seconds", type=float, default=10)
    parser.add_argument("--reconnect", action="store_true")
    parser.add_argument("--owner", type=int, help=argparse.SUPPRESS)
    own = sys.argv[1:]
    options = own[own.index("--") + 1:] if "--" in own else []
    arguments = parser.parse_args(own[:own.index("--")] if "--" in own else own)
    if arguments.owner:
        return owner(arguments.owner)

    with tempfile.TemporaryDirectory() as folder:
        preferences = pathlib.Path(folder, "preferences.json")
        preferences.write_text(json.dumps({"pairingCode": CODE}), encoding="utf-8")
        port = free_port()
        with open(os.path.join(folder, "log"), "wb") as log:
            daemon = subprocess.Popen(
                [arguments.daemon, "--port", str(port), "--no-advertise", "--preferences",
                 preferences, *options], stdout=log)
        try:
            for _ in range(100):
                if b"Listening" in pathlib.Path(folder, "log").read_bytes():
                    break
                time.sleep(0.05)
            watch = Watch(port, arguments.seconds)
            attack(port, arguments.connections, arguments.reconnect, watch)
            waited = watch.owner.communicate()[0].decode().strip()
        finally:
            daemon.terminate()
            daemon.wait()
    if not waited:
        return "the one who knows the code was not let in"
    rate = watch.answered / watch.elapsed
    print(f"{watch.answered} wrong codes in {watch.elapsed:.1f} s over {arguments.connections} connections: "
          f"{rate:.1f} a second, all {CODES} in {duration(CODES / max(rate, 1e-9))}; "
          f"the right one meanwhile took {waited} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
