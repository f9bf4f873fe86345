"""What all load on the real tarnlinkd needs: bus, daemon, clients, traffic, rules. Standard library
only."""

import argparse
import base64
import json
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

BUS, IED = "bus0", "ied0"  # The bridge's end of the cable and the other one.
PORT = 8765
START_LIMIT = 10  # Seconds.
ETHERTYPE_GOOSE, ETHERTYPE_SV = 0x88B8, 0x88BA
SOURCE = bytes.fromhex("020000000009")
UPGRADE = (b"GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n")


class Failed(Exception):
    """A rule that does not hold."""


def check(condition, text):
    if not condition:
        raise Failed(text)


def mebibytes(octets):
    return f"{octets / (1 << 20):.1f} MiB"


def command_line(description, names=(), **options):
    """What the program was called with: --daemon, options with their defaults, and some of the names.
    From then on it runs on a bus of its own."""
    parser = argparse.ArgumentParser(description=description,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    for name, default in {"daemon": "build/release/bin/tarnlinkd", **options}.items():
        how = {"action": "store_true"} if default is False else {"type": type(default)}
        parser.add_argument("--" + name.replace("_", "-"), default=default,
                            help="default: %(default)s", **how)
    if names:
        parser.add_argument("names", nargs="*", metavar="NAME", help=", ".join(names))
    called = parser.parse_args()
    for name in names and called.names:
        if name not in names:
            parser.error(f"{name} is none of {', '.join(names)}")
    if "TARNLINK_PRIVATE_NETWORK" not in os.environ:
        on_bus = pathlib.Path(__file__).parents[1] / "scripts" / "on_process_bus.sh"
        os.execv(on_bus, [str(on_bus), sys.executable, *sys.argv])
    return called


class Daemon:
    """The bridge on the bus; what it writes goes to a file. With `with`, it ends with the block."""

    def __init__(self, program, options=("--low-latency",), under=()):
        """`under`: a program that runs this one."""
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tarnlink-load-"))
        self.log_file = self.folder / "log"
        preferences = ["--preferences", str(self.folder / "preferences.json")]
        self.code = subprocess.run([program, "--show-pairing-code", *preferences], check=True,
                                   capture_output=True, text=True).stdout.strip()
        with open(self.log_file, "wb") as log:
            self.process = subprocess.Popen([*under, program, "--interface", BUS, "--no-advertise",
                                             *options, *preferences], stdout=log)
        self.process_files = pathlib.Path(f"/proc/{self.process.pid}")
        self.await_log("[KorvelTarnlink] Listening on port")

    def log(self):
        return self.log_file.read_text(errors="replace")

    def await_log(self, text):
        deadline = time.monotonic() + START_LIMIT
        while text not in self.log():
            if time.monotonic() > deadline or self.process.poll() is not None:
                raise RuntimeError(f"no '{text}' from the bridge:\n{self.log()[-2000:]}")
            time.sleep(0.005)

    def stop(self, limit):
        """SIGTERM; gives the exit code (none when it takes longer than the limit) and the seconds."""
        start = time.monotonic()
        self.process.terminate()
        try:
            exit_code = self.process.wait(limit)
        except subprocess.TimeoutExpired:
            exit_code = None
        return exit_code, time.monotonic() - start

    def memory(self, field="VmRSS"):
        """Octets."""
        status = (self.process_files / "status").read_text()
        return next(int(line.split()[1]) << 10 for line in status.splitlines()
                    if line.startswith(field))

    def descriptors(self):
        return len(list((self.process_files / "fd").iterdir()))

    def threads(self):
        return len(list((self.process_files / "task").iterdir()))

    def processor_time(self):
        """Seconds."""
        times = (self.process_files / "stat").read_text().rsplit(")", 1)[1].split()
        return (int(times[11]) + int(times[12])) / os.sysconf("SC_CLK_TCK")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


def masked(opcode, payload):
    """A frame (RFC 6455, 5.2) under mask 0."""
    size = len(payload)
    head = bytes([0x80 | size]) if size < 126 else b"\xfe" + struct.pack(">H", size)
    return bytes([0x80 | opcode]) + head + bytes(4) + payload


def connect():
    return socket.create_connection(("127.0.0.1", PORT), timeout=5)


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Client:
    """One WebSocket connection (RFC 6455) and the events that come over it."""

    def __init__(self, code=None, limit=5.0, upgrading=None):
        """`upgrading`: a connection that has sent its request already."""
        self.socket = upgrading or connect()
        self.socket.settimeout(limit)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buffer = b""
        if upgrading is None:
            self.socket.sendall(UPGRADE)
        while b"\r\n\r\n" not in self.buffer:
            self._receive()
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        if b" 101 " not in head:
            raise ConnectionError("the upgrade was refused")
        if code is not None:
            self.say("auth", token=code)
            if not self.await_event("auth_result")["ok"]:
                raise ConnectionError("wrong pairing code")

    def _receive(self):
        octets = self.socket.recv(1 << 20)
        if not octets:
            raise ConnectionError("closed by the bridge")
        self.buffer += octets

    def say(self, command, **members):
        self.socket.sendall(masked(1, json.dumps({"cmd": command, **members}).encode()))

    def events(self):
        """All events of which the frames have arrived; waits for the first octets."""
        self._receive()
        found, at, buffer = [], 0, self.buffer
        while len(buffer) - at >= 2:
            length, head = buffer[at + 1], 2
            if length == 126:
                length, head = int.from_bytes(buffer[at + 2:at + 4], "big"), 4
            elif length == 127:
                length, head = int.from_bytes(buffer[at + 2:at + 10], "big"), 10
            end = at + head + length
            if len(buffer) < end:
                break
            opcode, payload, at = buffer[at] & 15, buffer[at + head:end], end
            if opcode == 1:
                found.append(json.loads(payload))
            elif opcode == 9:
                self.socket.sendall(masked(10, payload))
            elif opcode == 8:
                raise ConnectionError("closed by the bridge")
        self.buffer = buffer[at:]
        return found

    def await_event(self, name):
        """The next event of that name; those before it and beside it are passed over."""
        while True:
            for event in self.events():
                if event["event"] == name:
                    return event

    def close(self):
        self.socket.sendall(masked(8, struct.pack(">H", 1000)))
        self.socket.close()

    def reset(self):
        reset(self.socket)


class Bystander:
    """Somebody who wants to be served all the while, and measures for how long it had to wait."""

    def __init__(self, limit=5.0):
        """`limit`: seconds that a ping may take."""
        self.client = Client(limit=limit + 1)
        self.limit = limit
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
        check(self.longest < self.limit, f"a ping took {self.longest:.1f} s")
        return f"longest ping of a bystander {self.longest * 1000:.0f} ms"


def publication(reference, **members):
    """The members of a publish_goose command."""
    return {"appId": 0x3000, "goCBRef": reference, "dataSetRef": "BRIDGE/LLN0$ds", "confRev": 1,
            "retransmissionProfile": "fast", "interface": BUS,
            "values": [{"type": "boolean", "value": True}], **members}


def element(tag, content):
    size = len(content)
    head = bytes([tag, size]) if size < 128 else bytes([tag, 0x82]) + struct.pack(">H", size)
    return head + content


def frame(ether_type, payload):
    destination = "010ccd010001" if ether_type == ETHERTYPE_GOOSE else "010ccd040001"
    return bytes.fromhex(destination) + SOURCE + struct.pack(">H", ether_type) + payload


def goose(app_id, reference, number, values):
    """A GOOSE payload (IEC 61850-8-1) with that sequence number, of four octets; and how many octets
    stand behind the number."""
    before = (element(0x80, reference.encode()) + element(0x81, b"\x07\xd0") +
              element(0x82, b"IED1LD0/LLN0$ds") + element(0x83, b"goose") +
              element(0x84, bytes(8)) + element(0x85, b"\1"))
    after = (element(0x87, b"\0") + element(0x88, b"\1") + element(0x89, b"\0") +
             element(0x8A, b"\2") + element(0xAB, values))
    pdu = element(0x61, before + element(0x86, struct.pack(">I", number)) + after)
    return struct.pack(">HHI", app_id, len(pdu) + 8, 0) + pdu, len(after)


class GooseStream:
    """One control block's frames: each has the next sequence number."""

    FIRST = 1 << 24  # From here on all numbers take four octets, so that frames keep their length.

    def __init__(self, app_id, reference):
        values = element(0x83, b"\1") + element(0x85, b"\x12\x34\x56\x78")
        payload, after = goose(app_id, reference, self.FIRST, values)
        self.frame = bytearray(frame(ETHERTYPE_GOOSE, payload))
        self.at = len(self.frame) - after - 4
        self.number = self.FIRST

    def next(self):
        struct.pack_into(">I", self.frame, self.at, self.number)
        self.number += 1
        return self.frame


class SvStream:
    """Sampled Values payloads (opaque to the bridge) that carry a running number."""

    HEADER = struct.pack(">HHI", 0x4000, 100, 0)

    def __init__(self):
        self.frame = bytearray(frame(ETHERTYPE_SV, self.HEADER + bytes(92)))
        self.number = 0

    def next(self):
        struct.pack_into(">I", self.frame, 14 + len(self.HEADER), self.number)
        self.number += 1
        return self.frame

    @classmethod
    def number_of(cls, event):
        payload = base64.b64decode(event["pduBase64"])
        return int.from_bytes(payload[len(cls.HEADER):len(cls.HEADER) + 4], "big")


class Wire:
    """The other end of the cable, for whole frames."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        self.socket.bind((IED, 0))
        self.send = self.socket.send
