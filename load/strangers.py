"""What clients that never pair may cost: memory, other clients' time, the owner's place.

Limits of the bridge's own: docs/protocol.md."""

import selectors
import socket
import struct
import time

import bus
from bus import check, mebibytes

MEMORY_LIMIT = 24 << 20  # Octets that the daemon may grow by, whatever strangers do.
LONGEST_PING = 1.0  # Seconds, of somebody else meanwhile.
PLACES = 64  # As in the packaged service.


DAEMON = ("--max-clients", str(PLACES), "--auth-delay")


def unread_pongs(daemon, _):
    """Clients that ask on and on and read nothing."""
    clients = [bus.Client() for _ in range(8)]
    before = daemon.memory()
    bystander = bus.Bystander(LONGEST_PING)
    asking = bus.masked(1, b'{"cmd":"ping","timestamp":1}') * 1000
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
        peak = max(peak, daemon.memory())
    pings = bystander.end()
    grown = peak - before
    check(grown < MEMORY_LIMIT, f"unread answers take memory: {mebibytes(grown)}")
    return f"{mebibytes(sent)} of pings, memory +{mebibytes(grown)}; {pings}"


def declared_lengths(daemon, _):
    """Headers of long messages with one octet behind them: refused, or paid for as they arrive."""
    before = daemon.memory()
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
    grown = daemon.memory() - before
    check(refused == 40, f"{refused} of 40 long messages were refused before pairing")
    check(grown < MEMORY_LIMIT, f"declared octets take memory: {mebibytes(grown)}")
    return f"40 refused before pairing, 40 after it: memory +{mebibytes(grown)}"


def idle_strangers(daemon, _):
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
    check(took < 1, f"strangers kept the owner out for {took:.1f} s")
    return f"the owner was in after {took * 1000:.0f} ms, {closed} of {PLACES} strangers had to go"


SCENARIOS = [unread_pongs, declared_lengths, idle_strangers]
