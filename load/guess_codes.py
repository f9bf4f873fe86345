#!/usr/bin/env python3
"""How fast pairing codes can be tried against the daemon, and what that makes of six digits.

Tries wrong codes over some connections at once, on a private network, and at last lets a client in
that knows the code, while the guesses go on. --reconnect: a connection for each guess.
"""

import multiprocessing
import selectors
import sys
import time

import bus

CODES = 1_000_000
BATCH = 200  # Guesses on their way on one connection; fewer leave the daemon waiting.
PATIENCE = 90  # Seconds for the client that knows the code.
ANSWER = b'"auth_result"'


class Guesser:
    """A connection that always has guesses on their way, or one that makes a single guess."""

    def __init__(self, guesses, is_single):
        self.guesses, self.is_single = guesses, is_single
        self.answers = self.sent = 0
        self.rest = b""
        self.out = bus.UPGRADE
        self.socket = bus.connect()
        self.socket.setblocking(False)
        self.more()

    def more(self):
        for _ in range(1 if self.is_single else BATCH):
            self.out += bus.masked(1, b'{"cmd":"auth","token":"%06d"}' % next(self.guesses))
            self.sent += 1

    def write(self):
        try:
            self.out = self.out[self.socket.send(self.out):]
        except OSError:
            pass

    def read(self):
        """The number of new answers, and whether the connection is at its end."""
        try:
            data = self.socket.recv(1 << 18)
        except BlockingIOError:
            return 0, False
        except OSError:
            data = b""
        if not data:
            return 0, True
        data = self.rest + data
        count = data.count(ANSWER)
        self.rest = data[-len(ANSWER) + 1:]
        self.answers += count
        if not self.is_single and self.answers > self.sent - BATCH // 2:
            self.more()
        return count, self.is_single and self.answers > 0


def attack(code, options, watch):
    """Goes on until watch(guesses answered) is true."""
    guesses = (number % CODES for number in range(sys.maxsize) if number % CODES != int(code))
    selector = selectors.DefaultSelector()
    both = selectors.EVENT_READ | selectors.EVENT_WRITE

    def connect():
        guesser = Guesser(guesses, options.reconnect)
        selector.register(guesser.socket, both, guesser)

    for _ in range(options.connections):
        connect()
    answered = 0
    while not watch(answered):
        for key, events in selector.select(timeout=0.1):
            guesser, is_at_end = key.data, False
            if events & selectors.EVENT_WRITE:
                guesser.write()
            if events & selectors.EVENT_READ:
                count, is_at_end = guesser.read()
                answered += count
            if is_at_end:
                selector.unregister(guesser.socket)
                guesser.socket.close()
                connect()
            else:
                selector.modify(guesser.socket, both if guesser.out else selectors.EVENT_READ,
                                guesser)


def let_owner_in(code, seconds):
    begin = time.monotonic()
    bus.Client(code, limit=PATIENCE)
    seconds.value = time.monotonic() - begin


class Watch:
    """After some seconds of guesses lets the one come who knows the code."""

    def __init__(self, code, seconds):
        self.seconds = seconds
        self.begin = time.monotonic()
        self.rate = 0
        self.waited = multiprocessing.Value("d", -1)
        self.owner = multiprocessing.Process(target=let_owner_in, args=(code, self.waited))

    def __call__(self, answered):
        if self.rate:
            return not self.owner.is_alive()
        elapsed = time.monotonic() - self.begin
        if elapsed >= self.seconds and answered:
            self.rate = answered / elapsed
            self.owner.start()
        return False


def duration(seconds):
    for unit, size in (("days", 86400), ("hours", 3600), ("minutes", 60)):
        if seconds > 2 * size:
            return f"{seconds / size:.1f} {unit}"
    return f"{seconds:.0f} s"


def main():
    options = bus.command_line(__doc__, connections=1, seconds=10.0, reconnect=False, auth_delay=False)
    with bus.Daemon(options.daemon, ["--auth-delay"] * options.auth_delay) as daemon:
        watch = Watch(daemon.code, options.seconds)
        attack(daemon.code, options, watch)
    if watch.waited.value < 0:
        sys.exit("the one who knows the code was not let in")
    print(f"{watch.rate:.0f} wrong codes a second over {options.connections} connections: all "
          f"{CODES:,} in {duration(CODES / watch.rate)}, half of that on average; the one who knows "
          f"the code was let in after {watch.waited.value:.2f} s")


if __name__ == "__main__":
    main()
