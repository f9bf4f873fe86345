"""Many clients, and bad ones."""

import multiprocessing
import os
import pathlib
import re
import resource
import selectors
import signal
import socket
import time

import bus
from bus import Failed, check, mebibytes

QUEUE_LIMIT = 64 << 20  # Octets that may wait for one client.
SLACK = 16 << 20  # Octets of resident memory that come and go with anything.
SMALL_BUFFER = 4096  # Octets in the kernel for a client that does not read.
STOPPED_BUFFER = 64 << 10  # The same for one that goes on; a smaller one makes TCP wait.
HANDSHAKE_LIMIT = 10  # Seconds.
CAPTURE_BUFFER = 10_000  # Frames, at least.
SILENCE = 5  # Seconds without a frame after which nothing more is expected.
SETTLE_TIME = 3  # Seconds for closing connections.
WAITING_LIMIT = 0.1  # Share of a processor that waiting for descriptors may cost.
DAEMON = ("--low-latency",)


def await_descriptors(daemon, count, limit=SETTLE_TIME):
    deadline = time.monotonic() + limit
    while daemon.descriptors() != count:
        check(time.monotonic() < deadline,
              f"{daemon.descriptors()} descriptors are open, {count} were at the beginning")
        time.sleep(0.01)


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


def connections(daemon, quick):
    """Many at once: all are upgraded and subscribed, each gets the frame, all leave together."""
    count = 200 if quick else 1000
    first = Follower(daemon.code)  # Holds the capture.
    before, memory_before, start = daemon.descriptors(), daemon.memory(), time.monotonic()
    sockets = [bus.connect() for _ in range(count)]  # All accepted before the first speaks.
    for connection in sockets:
        connection.sendall(bus.UPGRADE)
    followers = [Follower(daemon.code, upgrading=connection) for connection in sockets]
    ready = time.monotonic() - start
    grown = daemon.memory() - memory_before
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
    start, used = time.monotonic(), daemon.processor_time()
    send_frames(frames, rate)
    take_together(followers, frames)
    share = (daemon.processor_time() - used) / (time.monotonic() - start)
    return (f"{count} subscribers, {frames} frames at {rate}/s: {count * frames} events, none lost; "
            f"{share:.0%} of a processor, peak {mebibytes(daemon.memory('VmHWM'))}")


def stuck(daemon, quick):
    """A subscriber that never reads is dropped at the limit of its queue; others lose nothing."""
    frames, rate = (20_000, 10_000) if quick else (200_000, 10_000)
    followers = [Follower(daemon.code) for _ in range(3)]
    never_reads = Follower(daemon.code, SMALL_BUFFER)
    before = daemon.memory()
    send_frames(frames, rate)
    take_together(followers, frames)
    grown = daemon.memory("VmHWM") - before
    check(grown < QUEUE_LIMIT + SLACK, f"memory grew by {mebibytes(grown)}")
    is_dropped = "send queue is full" in daemon.log()
    check(quick or is_dropped, "the subscriber that never reads is still there")
    never_reads.socket.close()
    return (f"{frames} frames at {rate}/s to 3 readers, none lost; the fourth, which never read, "
            f"was {'dropped' if is_dropped else 'kept'}; memory grew by {mebibytes(grown)} at most")


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
    before = daemon.memory()
    sender = send_frames(frames, rate)
    time.sleep(duration * 0.2)
    for client in clients[::2]:
        os.kill(client.pid, signal.SIGSTOP)
    sender.join()
    grown = daemon.memory() - before
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
    before, memory_before, start = daemon.descriptors(), daemon.memory(), time.monotonic()
    bystander = bus.Bystander()
    for cycle in range(cycles):
        kind = cycle % 5
        if kind < 2:
            connection = bus.connect()
            connection.sendall(bus.UPGRADE[:kind * 60])
            bus.reset(connection)
            continue
        client = bus.Client(daemon.code if kind > 2 else None)
        if kind == 4:
            client.say("subscribe_goose")
        client.reset()
    duration = time.monotonic() - start
    longest = bystander.end()
    await_descriptors(daemon, before)
    return (f"{cycles} cycles in {duration:.1f} s, {before} descriptors before and after, memory "
            f"{mebibytes(memory_before)} before and {mebibytes(daemon.memory())} after; {longest}")


def handshakes(daemon, quick):
    """Silent, half and trickled upgrades are dropped in time, and nobody waits because of them."""
    count = 20 if quick else 200
    before, start = daemon.descriptors(), time.monotonic()
    bystander = bus.Bystander()
    slow = [bus.connect() for _ in range(3 * count)]
    await_descriptors(daemon, before + 1 + len(slow))
    for connection in slow[count:2 * count]:
        connection.sendall(bus.UPGRADE[:-2])
    at = 0
    while daemon.descriptors() > before + 1 and time.monotonic() - start < HANDSHAKE_LIMIT + 2:
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
    bystander = bus.Bystander()
    limit = daemon.descriptors() + 10
    pid = daemon.process.pid
    hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, hard))
    waiting = [bus.connect() for _ in range(100)]
    for connection in waiting:
        connection.sendall(bus.UPGRADE)
    time.sleep(0.5)
    check(daemon.descriptors() == limit, f"{daemon.descriptors()} descriptors, {limit} allowed")
    used, seconds = daemon.processor_time(), 1 if quick else 5
    unknown.say("auth", token=daemon.code)  # Reads a file, which does not open now.
    unknown.await_event("auth_result")
    time.sleep(seconds)
    share = (daemon.processor_time() - used) / seconds
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


SCENARIOS = [connections, subscribers, stuck, stopped, resets, handshakes, out_of_descriptors]
