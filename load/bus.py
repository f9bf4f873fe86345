"""A process bus of its own for load on the real tarnlinkd: private network, daemon, clients, traffic.

Standard library only. The network is a namespace that the kernel removes with its last process.
"""

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
import time

BUS, IED = "bus0", "ied0"  # The bridge's end of the cable and the other one.
PORT = 8765
START_LIMIT = 10  # Seconds.
ETHERTYPE_GOOSE, ETHERTYPE_SV = 0x88B8, 0x88BA
SOURCE = bytes.fromhex("020000000009")
UPGRADE = (b"GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n")


def enter_private_network():
    """Starts this program anew in a network of its own, with the cable laid."""
    if "TARNLINK_PRIVATE_NETWORK" not in os.environ:
        os.environ["TARNLINK_PRIVATE_NETWORK"] = "1"
        ways = [["unshare", "--net"], ["unshare", "--user", "--map-root-user", "--net"]]
        for way in ways[os.geteuid() != 0:]:
            if subprocess.run([*way, "true"], stderr=subprocess.DEVNULL).returncode == 0:
                os.execvp(way[0], [*way, "--", sys.executable, *sys.argv])
        sys.exit("cannot make a private network: neither root nor allowed to make user namespaces")
    ip("link set lo up")
    lay_cable()


def ip(arguments):
    path = os.environ["PATH"] + ":/usr/sbin:/sbin"
    subprocess.run(["ip", *arguments.split()], check=True, env={**os.environ, "PATH": path})


def lay_cable():
    ip(f"link add {BUS} type veth peer name {IED}")
    ip(f"link set {BUS} up")
    ip(f"link set {IED} up")


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

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


class Client:
    """One WebSocket connection (RFC 6455) and the events that come over it."""

    def __init__(self, code=None, limit=5.0, upgrading=None):
        """`upgrading`: a connection that has sent its request already."""
        self.socket = upgrading or socket.create_connection(("127.0.0.1", PORT), timeout=limit)
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

    def _frame(self, opcode, payload):
        size = len(payload)
        head = bytes([0x80 | size]) if size < 126 else b"\xfe" + struct.pack(">H", size)
        self.socket.sendall(bytes([0x80 | opcode]) + head + bytes(4) + payload)  # Mask 0.

    def say(self, command, **members):
        self._frame(1, json.dumps({"cmd": command, **members}).encode())

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
                self._frame(10, payload)
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
        self._frame(8, struct.pack(">H", 1000))
        self.socket.close()

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


def publication(reference, **members):
    """The members of a publish_goose command."""
    return {"appId": 0x3000, "goCBRef": reference, "dataSetRef": "BRIDGE/LLN0$ds", "confRev": 1,
            "retransmissionProfile": "fast", "interface": BUS,
            "values": [{"type": "boolean", "value": True}], **members}


def _element(tag, content):
    assert len(content) < 128
    return bytes([tag, len(content)]) + content


class GooseStream:
    """One control block's frames (IEC 61850-8-1): each has the next sequence number."""

    FIRST = 1 << 24  # From here on all numbers take four octets, so that frames keep their length.

    def __init__(self, app_id, reference):
        after = (_element(0x87, b"\0") + _element(0x88, b"\1") + _element(0x89, b"\0") +
                 _element(0x8A, b"\2") + _element(0xAB, _element(0x83, b"\1") +
                                                  _element(0x85, b"\x12\x34\x56\x78")))
        before = (_element(0x80, reference.encode()) + _element(0x81, b"\x07\xd0") +
                  _element(0x82, b"IED1LD0/LLN0$ds") + _element(0x83, b"goose") +
                  _element(0x84, bytes(8)) + _element(0x85, b"\1"))
        content = before + _element(0x86, bytes(4)) + after
        assert len(content) < 256
        pdu = bytes([0x61, 0x81, len(content)]) + content
        header = struct.pack(">HHI", app_id, len(pdu) + 8, 0)
        destination = bytes.fromhex("010ccd010001")
        frame = destination + SOURCE + struct.pack(">H", ETHERTYPE_GOOSE) + header + pdu
        self.frame = bytearray(frame)
        self.at = len(frame) - len(after) - 4
        self.number = self.FIRST

    def next(self):
        struct.pack_into(">I", self.frame, self.at, self.number)
        self.number += 1
        return self.frame


class SvStream:
    """Sampled Values payloads (opaque to the bridge) that carry a running number."""

    HEADER = struct.pack(">HHI", 0x4000, 100, 0)

    def __init__(self):
        destination = bytes.fromhex("010ccd040001")
        self.frame = bytearray(destination + SOURCE + struct.pack(">H", ETHERTYPE_SV) +
                               self.HEADER + bytes(92))
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

    def send(self, frame):
        self.socket.send(frame)
