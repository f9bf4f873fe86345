#!/usr/bin/env python3
"""Starts, serves and stops tarnlinkd under valgrind: no memory may be lost or used wrongly."""

import pathlib
import signal
import subprocess
import sys
import time

import bus

FAULTS = 99  # valgrind's exit code when it has found some.
VALGRIND = ["valgrind", "--quiet", "--leak-check=full", "--show-leak-kinds=definite,indirect,possible",
            "--errors-for-leak-kinds=definite,indirect,possible", f"--error-exitcode={FAULTS}",
            f"--suppressions={pathlib.Path(__file__).with_name('valgrind.supp')}",
            "--num-callers=30"]
FRAMES = 100
PATIENCE = 60  # Seconds; everything is some thirty times as slow.


def serve(daemon):
    """Something of everything, and clients that leave in every way or are still there at the end."""
    goose, sv, wire = bus.GooseStream(0x1000, "IED1LD0/LLN0$GO$gcb1"), bus.SvStream(), bus.Wire()
    clients = [bus.Client(daemon.code, limit=PATIENCE) for _ in range(4)]
    for client in clients:
        client.say("subscribe_goose")
        client.await_event("bridge_status")
        client.say("subscribe_sv")
        client.say("get_interfaces")
        client.await_event("interfaces")
    for _ in range(FRAMES):
        wire.send(goose.next())
        wire.send(sv.next())
        time.sleep(0.002)
    clients[0].await_event("sv_apdu")
    clients[1].reset()
    clients[2].close()
    first = clients[0]
    for reference in "BRIDGE/LLN0$GO$one", "BRIDGE/LLN0$GO$two":
        first.say("publish_goose", **bus.publication(reference))
        first.await_event("bridge_status")
    first.say("publish_sv_apdu", pduBase64="QAAAEwAAAABgCYABAYABAQE=", interface=bus.BUS)
    first.say("set_interface", interface=bus.BUS)
    first.await_event("bridge_status")
    first.say("publish_goose", **bus.publication("none", interface="nosuch0"))
    refusal = first.await_event("error")
    if not refusal["error"].startswith("Publish failed: nosuch0"):
        raise RuntimeError(f"another error than that of the missing interface: {refusal}")
    first.socket.sendall(b"\xff garbage")
    with bus.connect() as half:
        half.sendall(bus.UPGRADE[:40])
        daemon.process.send_signal(signal.SIGTERM)
        return daemon.process.wait(PATIENCE)


def main():
    options = bus.command_line(__doc__)
    bus.START_LIMIT = PATIENCE
    start = time.monotonic()
    with bus.Daemon(options.daemon, under=VALGRIND) as daemon:
        try:
            code = serve(daemon)
        except (OSError, subprocess.TimeoutExpired):
            print(daemon.log())
            raise
        if code != 0:
            print(daemon.log())
    verdict = {0: "nothing lost", FAULTS: "FAULTS, see above"}.get(code, f"exit code {code}")
    print(f"start, serve, stop in {time.monotonic() - start:.0f} s: {verdict}")
    sys.exit(code != 0)


if __name__ == "__main__":
    main()
