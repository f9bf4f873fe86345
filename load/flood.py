#!/usr/bin/env python3
"""Floods the bus with frames, faster than tarnlinkd can serve them, and holds it to three rules: its
memory stays bounded, others are served meanwhile, and afterwards the memory goes back.

The clients read as fast as they can. Arguments name the kinds of frames; --clients their numbers.
"""

import argparse
import multiprocessing
import re
import selectors
import struct
import sys
import time

import bus
from load import Bystander, Failed, check, mebibytes, memory

MEMORY_LIMIT = 256 << 20  # Octets, beside the clients' queues.
QUEUE_LIMIT = 64 << 20  # Octets; frames that wait for several clients are shared by them.
LONGEST_PING = 1.0  # Seconds.
CALM_LIMIT = 24 << 20  # Octets of the daemon's own, capture buffers not counted, after a flood.
CALM_TIME = 10  # Seconds from the end of the flood until then.
PAYLOAD = 1419  # Octets; the whole frame has 1,433.


def element(tag, content):
    size = len(content)
    head = bytes([tag, size]) if size < 128 else bytes([tag, 0x82]) + struct.pack(">H", size)
    return head + content


def goose(values):
    """As large as PAYLOAD allows, of the given values over and over."""
    head = (element(0x80, b"IED1LD0/LLN0$GO$gcb1") + element(0x81, b"\x07\xd0") +
            element(0x82, b"IED1LD0/LLN0$ds") + element(0x83, b"goose") + element(0x84, bytes(8)) +
            element(0x85, b"\1") + element(0x86, b"\1") + element(0x88, b"\1") +
            element(0x8A, b"\2"))
    room = PAYLOAD - 8 - 4 - len(head) - 4
    pdu = element(0x61, head + element(0xAB, values * (room // len(values))))
    return struct.pack(">HHI", 0x1000, len(pdu) + 8, 0) + pdu


# The type of the frames and what makes one of them costly.
KINDS = {
    "booleans": (bus.ETHERTYPE_GOOSE, goose(element(0x83, b"\1"))),
    "empty": (bus.ETHERTYPE_GOOSE, goose(b"\xa2\0")),  # Structures: most storage for an octet.
    "nested": (bus.ETHERTYPE_GOOSE, goose(element(0xA2, element(0xA1, b"\x83\0" * 2) * 3))),
    "sv": (bus.ETHERTYPE_SV, struct.pack(">HHI", 0x4000, PAYLOAD, 0) + bytes(PAYLOAD - 8)),
}


def send(kind, end, sent):
    wire = bus.Wire().socket.send
    ether_type, payload = KINDS[kind]
    frame = bytes.fromhex("010ccd010001") + bus.SOURCE + struct.pack(">H", ether_type) + payload
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


def flood(daemon, kind, clients, seconds, senders):
    """Clients of the same bridge, flood after flood: what one leaves behind, the next one finds."""
    ready = multiprocessing.Event()
    taken, left = multiprocessing.Value("Q"), multiprocessing.Value("Q")
    reader = multiprocessing.Process(target=read, args=(daemon.code, clients, ready, taken, left))
    reader.start()
    check(ready.wait(30), "the clients could not subscribe")
    log_start = len(daemon.log())
    bystander = Bystander()
    sent = multiprocessing.Value("Q")
    start = time.monotonic()
    sending = [multiprocessing.Process(target=send, args=(kind, start + seconds, sent))
               for _ in range(senders)]
    for sender in sending:
        sender.start()
    peak = 0
    while time.monotonic() < start + seconds:
        peak = max(peak, memory(daemon))
        time.sleep(0.02)
    for sender in sending:
        sender.join()
    pings = bystander.end()
    read_speed = taken.value / seconds
    deadline = time.monotonic() + CALM_TIME
    while True:
        calm = memory(daemon, "RssAnon")
        if calm < CALM_LIMIT or time.monotonic() > deadline:
            break
        time.sleep(0.1)
    calm_time = time.monotonic() - start - seconds
    reader.terminate()
    reader.join()
    dropped = [int(count) for count in re.findall(r"dropped (\d+) frames, ", daemon.log()[log_start:])]
    print(f"{kind}, {clients} clients: {sent.value / seconds:,.0f} frames/s sent, "
          f"{mebibytes(read_speed)}/s read, {left.value} dropped as too slow, {sum(dropped):,} drops told in {len(dropped)} lines; "
          f"peak {mebibytes(peak)}, {mebibytes(calm)} its own after {calm_time:.1f} s; {pings}", flush=True)
    check(peak < MEMORY_LIMIT + QUEUE_LIMIT, f"memory: {mebibytes(peak)}")
    check(bystander.longest < LONGEST_PING, f"a ping took {bystander.longest:.1f} s")
    check(calm < CALM_LIMIT, f"memory stays: {mebibytes(calm)}")
    check(dropped or left.value, "no frame was lost, or none was told: this was no flood")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--daemon", default="build/release/bin/tarnlinkd")
    parser.add_argument("--seconds", type=float, default=5)
    parser.add_argument("--clients", type=int, nargs="+", default=[1, 20])
    parser.add_argument("--senders", type=int, default=2)
    parser.add_argument("--standard", action="store_true", help="captures as libpcap makes them")
    parser.add_argument("kinds", nargs="*", metavar="kind", help=", ".join(KINDS))
    options = parser.parse_args()
    bus.enter_private_network()
    failures = 0
    with bus.Daemon(options.daemon, () if options.standard else ("--low-latency",)) as daemon:
        print(f"{mebibytes(memory(daemon))} at the beginning, of which "
              f"{mebibytes(memory(daemon, 'RssAnon'))} its own", flush=True)
        for kind in options.kinds or KINDS:
            for clients in options.clients:
                try:
                    flood(daemon, kind, clients, options.seconds, options.senders)
                except Failed as failure:
                    failures += 1
                    print(f"  FAILED: {failure}", flush=True)
    sys.exit(failures != 0)


if __name__ == "__main__":
    main()
