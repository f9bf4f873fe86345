#!/usr/bin/env python3
"""Loads tarnlinkd with many clients and bad ones, one scenario after the other, and prints figures.

Each scenario has a daemon of its own on a private network and says which rules it holds it to.
Arguments name scenarios; --quick makes each last a few seconds.
"""

import argparse
import multiprocessing
import os
import pathlib
import re
import resource
import selectors
import signal
import socket
import struct
import subprocess
import sys
import threading
import time

import bus

QUEUE_LIMIT = 64 << 20  # Octets that may wait for one client.
SLACK = 16 << 20  # Octets of resident memory that come and go with anything.
SMALL_BUFFER = 4096  # Octets in the kernel for a client that does not read.
STOPPED_BUFFER = 64 << 10  # The same for one that goes on; a smaller one makes TCP wait.
HANDSHAKE_LIMIT = 10  # Seconds.
CAPTURE_BUFFER = 10_000  # Frames, at least.
SILENCE = 5  # Seconds without a frame after which nothing more is expected.
SETTLE_TIME = 3  # Seconds for closing connections.
WAITING_LIMIT = 0.1  # Share of a processor that waiting for descriptors may cost.
LONGEST_PING = 5.0  # Seconds; the machine is small, and the load is on it as well.


class Failed(Exception):
    pass


def check(condition, text):
    if not condition:
        raise Failed(text)


# ---- The daemon, seen from outside ----


def descriptors(daemon):
    return len(os.listdir(f"/proc/{daemon.process.pid}/fd"))


def memory(daemon, field="VmRSS"):
    with open(f"/proc/{daemon.process.pid}/status") as status:
        return next(int(line.split()[1]) << 10 for line in status if line.startswith(field))


def processor_time(daemon):
    with open(f"/proc/{daemon.process.pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def mebibytes(octets):
    return f"{octets / (1 << 20):.1f} MiB"


def await_descriptors(daemon, count, limit=SETTLE_TIME):
    deadline = time.monotonic() + limit
    while descriptors(daemon) != count:
        check(time.monotonic() < deadline,
              f"{descriptors(daemon)} descriptors are open, {count} were at the beginning")
        time.sleep(0.01)


# ---- Clients ----


class Follower(bus.Client):
    """Subscribed to GOOSE; compares the sequence number of each message with the one before."""

    NUMBER = re.compile(rb'"sqNum":(\d+)[,}]')

    def __init__(self, code, receive_buffer=None, upgrading=None):
        super().__init__(code, upgrading=upgrading)
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.say("subscribe_goose")
        self.await_event("bridge_status")
        self.taken = 0
        self.first = bus.GooseStream.FIRST

    def take(self):
        """What has arrived."""
        octets = self.socket.recv(1 << 18)
        if not octets:
            raise ConnectionError("closed by the bridge")
        self.buffer += octets
        end = 0
        for match in self.NUMBER.finditer(self.buffer):
            check(int(match[1]) == self.first + self.taken,
                  f"number {int(match[1]) - self.first} came where {self.taken} was due")
            self.taken += 1
            end = match.end()
        self.buffer = self.buffer[end:]

    def take_all(self, count, silence=SILENCE):
        self.socket.settimeout(silence)
        try:
            while self.taken < count:
                self.take()
        except (TimeoutError, ConnectionError) as error:
            raise Failed(f"{error} after {self.taken} of {count} frames") from None


def take_together(followers, count):
    """All of them take their frames, in one thread."""
    with selectors.DefaultSelector() as selector:
        for follower in followers:
            selector.register(follower.socket, selectors.EVENT_READ, follower)
        left = len(followers)
        while left:
            ready = selector.select(SILENCE)
            check(ready, f"{left} followers lack frames: {[f.taken for f in followers][:10]}...")
            for key, _ in ready:
                key.data.take()
                if key.data.taken == count:
                    selector.unregister(key.fileobj)
                    left -= 1


def send_frames(count, rate):
    """In a process of its own, at an even rate."""
    def run():
        wire, stream = bus.Wire(), bus.GooseStream(0x1000, "IED1LD0/LLN0$GO$gcb1")
        start, sent = time.monotonic(), 0
        while sent < count:
            due = min(count, int((time.monotonic() - start) * rate) + 1)
            for _ in range(due - sent):
                wire.send(stream.next())
            sent = due
            time.sleep(0.001)

    sender = multiprocessing.Process(target=run, daemon=True)
    sender.start()
    return sender


class Bystander:
    """Somebody who wants to be served all the while, and measures for how long it had to wait."""

    def __init__(self):
        self.client = bus.Client(limit=LONGEST_PING)
        self.longest = 0.0
        self.error = None
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self._ping, daemon=True)
        self.thread.start()

    def _ping(self):
        try:
            while not self.stop.wait(0.02):
                start = time.monotonic()
                self.client.say("ping", timestamp=0)
                self.client.await_event("pong")
                self.longest = max(self.longest, time.monotonic() - start)
        except OSError as error:
            self.error = error

    def end(self):
        """How long the longest ping took."""
        self.stop.set()
        self.thread.join()
        self.client.close()
        check(self.error is None, f"the bystander's connection: {self.error}")
        return f"longest ping of a bystander {self.longest * 1000:.0f} ms"


def connect():
    return socket.create_connection(("127.0.0.1", bus.PORT), timeout=SILENCE)


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def warm_up(daemon):
    """What the first capture makes stays, and its buffer counts as memory once it has been used."""
    def captures():
        return pathlib.Path("/proc/net/packet").read_text().count("\n")

    before = captures()
    follower = Follower(daemon.code)
    send_frames(CAPTURE_BUFFER, 20_000)
    follower.take_all(CAPTURE_BUFFER)
    follower.close()
    deadline = time.monotonic() + SETTLE_TIME
    while captures() > before and time.monotonic() < deadline:
        time.sleep(0.01)
    time.sleep(0.5)  # The sockets close a little later.


# ---- Scenarios ----


def connections(daemon, quick):
    """Many at once: all are upgraded and subscribed, each gets the frame, all leave together."""
    count = 200 if quick else 1000
    first = Follower(daemon.code)  # Holds the capture.
    before, memory_before, start = descriptors(daemon), memory(daemon), time.monotonic()
    sockets = [connect() for _ in range(count)]  # All accepted before the first speaks.
    for connection in sockets:
        connection.sendall(bus.UPGRADE)
    followers = [Follower(daemon.code, upgrading=connection) for connection in sockets]
    ready = time.monotonic() - start
    grown = memory(daemon) - memory_before
    send_frames(10, 1000).join()
    take_together(followers, 10)
    for follower in followers:
        follower.socket.close()
    await_descriptors(daemon, before)
    first.close()
    return (f"{count} connections subscribed in {ready:.1f} s, 10 frames to each, "
            f"{grown / count / 1024:.1f} KiB each")


def subscribers(daemon, quick):
    """Every subscriber gets every frame, once and in order."""
    count, frames, rate = (50, 1000, 500) if quick else (200, 20_000, 500)
    followers = [Follower(daemon.code) for _ in range(count)]
    start, used = time.monotonic(), processor_time(daemon)
    send_frames(frames, rate)
    take_together(followers, frames)
    share = (processor_time(daemon) - used) / (time.monotonic() - start)
    return (f"{count} subscribers, {frames} frames at {rate}/s: {count * frames} events, none lost; "
            f"{share:.0%} of a processor, peak {mebibytes(memory(daemon, 'VmHWM'))}")


def stuck(daemon, quick):
    """A subscriber that never reads is dropped at the limit of its queue; others lose nothing."""
    frames, rate = (20_000, 10_000) if quick else (200_000, 10_000)
    followers = [Follower(daemon.code) for _ in range(3)]
    never_reads = Follower(daemon.code, SMALL_BUFFER)
    before = memory(daemon)
    send_frames(frames, rate)
    take_together(followers, frames)
    grown = memory(daemon, "VmHWM") - before
    check(grown < QUEUE_LIMIT + SLACK, f"memory grew by {mebibytes(grown)}")
    is_dropped = "send queue is full" in daemon.log()
    check(quick or is_dropped, "the subscriber that never reads is still there")
    never_reads.socket.close()
    return (f"{frames} frames at {rate}/s to 3 readers, none lost; the fourth, which never read, "
            f"was {'dropped' if is_dropped else 'kept'}; memory grew by {mebibytes(grown)} at most")


def unread_answers(daemon, quick):
    """The same with the smallest answers there are, which cost most memory for their octets."""
    client, before = bus.Client(), memory(daemon)
    bystander = Bystander()
    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER)
    command = b'{"cmd":"ping"}'
    pings = (bytes([0x81, 0x80 | len(command)]) + bytes(4) + command) * 1000
    sent, most = 0, 50_000 if quick else 3_000_000
    try:
        while sent < most:
            client.socket.sendall(pings)
            sent += 1000
    except ConnectionError:
        pass
    is_dropped = sent < most
    if is_dropped:
        daemon.await_log("send queue is full")
    check(quick or is_dropped, f"still there after {sent} commands")
    grown = memory(daemon, "VmHWM") - before
    check(grown < QUEUE_LIMIT + SLACK, f"memory grew by {mebibytes(grown)}")
    return (f"{'dropped' if is_dropped else 'kept'} after {sent} commands without reading; memory "
            f"grew by {mebibytes(grown)} at most; {bystander.end()}")


def stopped(daemon, quick):
    """Half of the clients are stopped for a while and then go on: nobody has lost a frame."""
    count, frames, rate = (20, 2_000, 1000) if quick else (100, 20_000, 2000)
    duration = frames / rate
    # A segment for which a stopped client had no room is sent again at intervals that double
    # (RFC 6298, 5.5): the next one comes as long after the stop as that has lasted, at most.
    silence = SILENCE + 2 * duration
    everybody_ready = multiprocessing.Barrier(count + 1)
    results = multiprocessing.Queue()

    def follow():
        follower = Follower(daemon.code, STOPPED_BUFFER)
        everybody_ready.wait()
        try:
            follower.take_all(frames, silence)
            results.put("all")
        except Failed as failure:
            results.put(str(failure))

    clients = [multiprocessing.Process(target=follow, daemon=True) for _ in range(count)]
    for client in clients:
        client.start()
    everybody_ready.wait()
    before = memory(daemon)
    sender = send_frames(frames, rate)
    time.sleep(duration * 0.2)
    for client in clients[::2]:
        os.kill(client.pid, signal.SIGSTOP)
    sender.join()
    grown = memory(daemon) - before
    for client in clients[::2]:
        os.kill(client.pid, signal.SIGCONT)
    outcomes = [results.get(timeout=60) for _ in clients]
    complaints = [outcome for outcome in outcomes if outcome != "all"]
    check(not complaints, f"{len(complaints)} clients: {complaints[:3]}")
    return (f"{count // 2} of {count} clients stopped for {duration * 0.8:.1f} s of {frames} frames "
            f"at {rate}/s, then continued: none lost; memory grew by {mebibytes(grown)}")


def resets(daemon, quick):
    """Clients that vanish in every state leave nothing behind."""
    cycles = 500 if quick else 10_000
    before, memory_before, start = descriptors(daemon), memory(daemon), time.monotonic()
    bystander = Bystander()
    for cycle in range(cycles):
        kind = cycle % 5
        if kind < 2:
            connection = connect()
            connection.sendall(bus.UPGRADE[:kind * 60])
            reset(connection)
            continue
        client = bus.Client(daemon.code if kind > 2 else None)
        if kind == 4:
            client.say("subscribe_goose")
        client.reset()
    duration = time.monotonic() - start
    longest = bystander.end()
    await_descriptors(daemon, before)
    return (f"{cycles} cycles in {duration:.1f} s, {before} descriptors before and after, memory "
            f"{mebibytes(memory_before)} before and {mebibytes(memory(daemon))} after; {longest}")


def handshakes(daemon, quick):
    """Silent, half and trickled upgrades are dropped in time, and nobody waits because of them."""
    count = 20 if quick else 200
    before, start = descriptors(daemon), time.monotonic()
    bystander = Bystander()
    slow = [connect() for _ in range(3 * count)]
    for connection in slow[count:2 * count]:
        connection.sendall(bus.UPGRADE[:-2])
    at = 0
    while descriptors(daemon) > before + 1 and time.monotonic() - start < HANDSHAKE_LIMIT + 2:
        for connection in slow[2 * count:]:
            try:
                connection.sendall(bus.UPGRADE[at:at + 1])
            except OSError:
                pass
        at += 1
        time.sleep(0.25)
    lasted = time.monotonic() - start
    check(HANDSHAKE_LIMIT - 1 < lasted < HANDSHAKE_LIMIT + 2, f"they were dropped in {lasted:.1f} s")
    longest = bystander.end()
    for connection in slow:
        connection.close()
    await_descriptors(daemon, before)
    return f"{count} silent, {count} half, {count} trickled: gone after {lasted:.1f} s; {longest}"


def out_of_descriptors(daemon, quick):
    """Accepting waits instead of spinning, clients are served, and all recovers."""
    unknown = bus.Client()
    bystander = Bystander()
    limit = descriptors(daemon) + 10
    pid = daemon.process.pid
    hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, hard))
    waiting = [connect() for _ in range(100)]
    for connection in waiting:
        connection.sendall(bus.UPGRADE)
    time.sleep(0.5)
    check(descriptors(daemon) == limit, f"{descriptors(daemon)} descriptors, {limit} allowed")
    used, seconds = processor_time(daemon), 1 if quick else 5
    unknown.say("auth", token=daemon.code)  # Reads a file, which does not open now.
    unknown.await_event("auth_result")
    time.sleep(seconds)
    share = (processor_time(daemon) - used) / seconds
    check(share < WAITING_LIMIT, f"waiting took {share:.0%} of a processor")
    for connection in waiting:
        connection.close()
    start = time.monotonic()
    bus.Client(daemon.code)
    recovered = time.monotonic() - start
    check(recovered < 1, f"the first client afterwards waited {recovered:.2f} s")
    unknown.say("auth", token=daemon.code)
    check(unknown.await_event("auth_result")["ok"], "the pairing code is another one now")
    return (f"100 clients with {limit} descriptors: {share:.1%} of a processor while waiting; a new "
            f"client served {recovered * 1000:.0f} ms after the others left; {bystander.end()}")


SCENARIOS = [connections, subscribers, stuck, unread_answers, stopped, resets, handshakes,
             out_of_descriptors]


def main():
    names = [scenario.__name__ for scenario in SCENARIOS]
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("scenarios", nargs="*", metavar="SCENARIO", help=", ".join(names))
    parser.add_argument("--daemon", default="build/release/bin/tarnlinkd")
    parser.add_argument("--quick", action="store_true", help="seconds instead of minutes")
    options = parser.parse_args()
    unknown = set(options.scenarios) - set(names)
    if unknown:
        parser.error(f"no scenario {', '.join(unknown)}; there are {', '.join(names)}")
    bus.enter_private_network()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    failures = 0
    for scenario in SCENARIOS:
        if options.scenarios and scenario.__name__ not in options.scenarios:
            continue
        with bus.Daemon(options.daemon) as daemon:
            try:
                warm_up(daemon)
                print(f"{scenario.__name__}: {scenario(daemon, options.quick)}", flush=True)
                daemon.process.terminate()
                check(daemon.process.wait(3) == 0, "SIGTERM did not end it with exit code 0")
            except (Failed, OSError, subprocess.TimeoutExpired) as failure:
                failures += 1
                print(f"{scenario.__name__}: FAILED: {failure!r}\n{daemon.log()[-1000:]}", flush=True)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
