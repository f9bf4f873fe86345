#!/usr/bin/env python3
"""What clients that never pair may cost: memory, other clients' time, the owner's place.

Runs the scenarios named, all without names. Limits of the bridge's own: docs/protocol.md.
"""

import argparse
import selectors
import socket
import struct
import sys
import time

import bus
from load import Bystander, Failed, check, mebibytes, memory

MEMORY_LIMIT = 24 << 20  # Octets that the daemon may grow by, whatever strangers do.
LONGEST_PING = 1.0  # Seconds, of somebody else meanwhile.
PLACES = 64  # As in the packaged service.


def masked(opcode, payload):
    return bytes([0x80 | opcode, 0x80 | len(payload)]) + bytes(4) + payload


def unread_pongs(daemon):
    """Clients that ask on and on and read nothing."""
    clients = [bus.Client() for _ in range(8)]
    before = memory(daemon)
    bystander = Bystander()
    asking = masked(1, b'{"cmd":"ping","timestamp":1}') * 1000
    sent = peak = 0
    selector = selectors.DefaultSelector()
    for client in clients:
        client.socket.setblocking(False)
        selector.register(client.socket, selectors.EVENT_WRITE)
    end = time.monotonic() + 5
    rests = dict.fromkeys((client.socket for client in clients), b"")
    while time.monotonic() < end:
        for key, _ in selector.select(timeout=0.05):
            rest = rests[key.fileobj] or asking
            count = key.fileobj.send(rest)  # What is left of a frame goes first.
            rests[key.fileobj] = rest[count:]
            sent += count
        peak = max(peak, memory(daemon))
    pings = bystander.end()
    print(f"unread_pongs: {mebibytes(sent)} of pings, memory +{mebibytes(peak - before)}; {pings}")
    check(peak - before < MEMORY_LIMIT, "unread answers take memory")
    check(bystander.longest < LONGEST_PING, "somebody else had to wait")


def declared_lengths(daemon):
    """Headers of long messages with one octet behind them: refused, or paid for as they arrive."""
    before = memory(daemon)
    head = b"\x81\xff" + struct.pack(">Q", 1 << 20) + bytes(4) + b"x"
    refused = 0
    for _ in range(40):
        client = bus.Client()
        client.socket.sendall(head)
        answer = client.socket.recv(64)
        refused += answer[:1] == b"\x88" and answer[2:4] == struct.pack(">H", 1009)
        client.socket.close()
    paired = [bus.Client(daemon.code) for _ in range(40)]
    for client in paired:
        client.socket.sendall(head)
    time.sleep(0.5)
    grown = memory(daemon) - before
    print(f"declared_lengths: {refused} of 40 refused before pairing, 40 after: memory +{mebibytes(grown)}")
    check(refused == 40, "a long message was begun before pairing")
    check(grown < MEMORY_LIMIT, "declared octets take memory")


def idle_strangers(daemon):
    """As many as there are places, and they answer pings; the owner comes last."""
    strangers, closed = [], 0
    for _ in range(PLACES):
        strangers.append(bus.Client())
    start = time.monotonic()
    owner = bus.Client(daemon.code)
    took = time.monotonic() - start
    for stranger in strangers:
        stranger.socket.settimeout(0.2)
        try:
            closed += stranger.socket.recv(64) == b""
        except socket.timeout:
            pass
        except ConnectionError:
            closed += 1
    owner.say("get_interfaces")
    owner.await_event("interfaces")
    print(f"idle_strangers: the owner was in after {took * 1000:.0f} ms, {closed} of {PLACES} strangers had to go")
    check(took < 1, "strangers kept the owner out")


SCENARIOS = {each.__name__: each for each in (unread_pongs, declared_lengths, idle_strangers)}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--daemon", default="build/release/bin/tarnlinkd")
    parser.add_argument("names", nargs="*", metavar="scenario", help=", ".join(SCENARIOS))
    options = parser.parse_args()
    bus.enter_private_network()
    failures = 0
    for name in options.names or SCENARIOS:
        with bus.Daemon(options.daemon, ("--max-clients", str(PLACES), "--auth-delay")) as daemon:
            try:
                SCENARIOS[name](daemon)
            except Failed as failure:
                failures += 1
                print(f"  FAILED: {name}: {failure}", flush=True)
    sys.exit(failures != 0)


if __name__ == "__main__":
    main()
