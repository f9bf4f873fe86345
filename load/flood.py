"""Frames faster than tarnlinkd can serve them: its memory stays bounded, others are served
meanwhile, and afterwards the memory goes back. The clients read as fast as they can."""

import multiprocessing
import re
import selectors
import struct
import time

import bus
from bus import check, mebibytes

MEMORY_LIMIT = 256 << 20  # Octets, beside the clients' queues.
QUEUE_LIMIT = 64 << 20  # Octets; frames that wait for several clients are shared by them.
LONGEST_PING = 1.0  # Seconds.
CALM_LIMIT = 24 << 20  # Octets of the daemon's own, capture buffers not counted, after a flood.
CALM_TIME = 10  # Seconds from the end of the flood until then.
VALUES = 1300  # Octets of dataset; whole frames have 1,400.
SENDERS = 2
DAEMON = ("--low-latency",)


def goose(value):
    values = bus.element(*value) * (VALUES // len(bus.element(*value)))
    return bus.frame(bus.ETHERTYPE_GOOSE, bus.goose(0x1000, "IED1LD0/LLN0$GO$gcb1", 1, values)[0])


# What makes one of them slow to serve.
KINDS = {
    "booleans": goose((0x83, b"\1")),
    "empty": goose((0xA2, b"")),  # Structures: most storage for an octet.
    "nested": goose((0xA2, bus.element(0xA1, b"\x83\0" * 2) * 3)),
    "sv": bus.frame(bus.ETHERTYPE_SV, struct.pack(">HHI", 0x4000, VALUES, 0) + bytes(VALUES)),
}


def send(kind, end, sent):
    wire = bus.Wire().socket.send
    frame = KINDS[kind]
    count = 0
    while time.monotonic() < end:
        for _ in range(100):
            try:
                wire(frame)
            except OSError:  # The cable's queue is full.
                continue
            count += 1
    with sent.get_lock():
        sent.value += count


def read(code, clients, ready, taken, left):
    """What is in the events does not matter here."""
    selector = selectors.DefaultSelector()
    for _ in range(clients):
        client = bus.Client(code)
        client.say("subscribe_goose")
        client.await_event("bridge_status")
        client.say("subscribe_sv")
        selector.register(client.socket, selectors.EVENT_READ)
    ready.set()
    buffer = bytearray(1 << 20)
    while selector.get_map():
        for key, _ in selector.select():
            try:
                taken.value += key.fileobj.recv_into(buffer)
            except ConnectionError:  # More than QUEUE_LIMIT waited for this one.
                selector.unregister(key.fileobj)
                left.value += 1


def flood_with(daemon, kind, clients, seconds):
    ready = multiprocessing.Event()
    taken, left = multiprocessing.Value("Q"), multiprocessing.Value("Q")
    reader = multiprocessing.Process(target=read, args=(daemon.code, clients, ready, taken, left))
    reader.start()
    check(ready.wait(30), "the clients could not subscribe")
    log_start = len(daemon.log())
    bystander = bus.Bystander(LONGEST_PING)
    sent = multiprocessing.Value("Q")
    start = time.monotonic()
    sending = [multiprocessing.Process(target=send, args=(kind, start + seconds, sent))
               for _ in range(SENDERS)]
    for sender in sending:
        sender.start()
    peak = 0
    while time.monotonic() < start + seconds:
        peak = max(peak, daemon.memory())
        time.sleep(0.02)
    for sender in sending:
        sender.join()
    pings = bystander.end()
    deadline = time.monotonic() + CALM_TIME
    while True:
        calm = daemon.memory("RssAnon")
        if calm < CALM_LIMIT or time.monotonic() > deadline:
            break
        time.sleep(0.1)
    calm_time = time.monotonic() - start - seconds
    reader.terminate()
    reader.join()
    dropped = [int(count) for count in re.findall(r"dropped (\d+) frames, ", daemon.log()[log_start:])]
    check(peak < MEMORY_LIMIT + QUEUE_LIMIT, f"memory: {mebibytes(peak)}")
    check(calm < CALM_LIMIT, f"memory stays: {mebibytes(calm)}")
    check(dropped or left.value, "no frame was lost, or none was told: this was no flood")
    return (f"{kind} to {clients} clients: {sent.value / seconds:,.0f} frames/s sent, "
            f"{mebibytes(taken.value / seconds)}/s read, {left.value} clients too slow, "
            f"{sum(dropped):,} drops told in {len(dropped)} lines; peak {mebibytes(peak)}, "
            f"{mebibytes(calm)} its own after {calm_time:.1f} s; {pings}")


def flood(daemon, quick):
    """Clients of the same bridge, flood after flood: what one leaves behind, the next one finds."""
    if quick:
        return flood_with(daemon, "booleans", 5, 2)
    return "\n  ".join(flood_with(daemon, kind, clients, 5) for kind in KINDS for clients in (1, 20))


SCENARIOS = [flood]
