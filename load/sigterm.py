#!/usr/bin/env python3
"""Ends a busy tarnlinkd at random moments: exit code 0 within 2 seconds, each time.

Frames flow at full rate, clients connect, subscribe, publish, stop reading and vanish, captures
start and stop; then SIGTERM comes in the midst of it. A seed repeats the moments, not the machine.
"""

import multiprocessing
import random
import sys
import threading
import time

import bus

LIMIT = 2  # Seconds.
LONGEST_RUN = 0.8  # Seconds between the start and the signal.
CLIENTS = 6
COMMANDS = [
    ("subscribe_goose", {}), ("unsubscribe_goose", {}), ("subscribe_sv", {}), ("unsubscribe_sv", {}),
    ("publish_goose", bus.publication("BRIDGE/LLN0$GO$a")), ("unpublish_goose", {}),
    ("publish_goose", bus.publication("BRIDGE/LLN0$GO$v", vlanId=7)),
    ("publish_sv_apdu", {"pduBase64": "QAAAEwAAAABgCYABAYABAQE=", "interface": bus.BUS}),
    ("set_interface", {"interface": bus.BUS}), ("get_interfaces", {}),
]


def flood(stop):
    wire, streams = bus.Wire(), [bus.GooseStream(0x1000, "IED1LD0/LLN0$GO$a"), bus.SvStream()]
    while not stop.is_set():
        for stream in streams * 20:
            wire.send(stream.next())
        time.sleep(0.002)


def be_busy(seed, code, over):
    """Clients of all manners, one after another, until the bridge is gone."""
    chance = random.Random(seed)
    while not over.is_set():
        try:
            client = bus.Client(code)
            for command, members in chance.choices(COMMANDS, k=chance.randint(0, 6)):
                client.say(command, **members)
                if chance.random() < 0.5:
                    client.events()
            if chance.random() < 0.2:
                over.wait(1)  # Reads nothing, not even the close frame.
            chance.choice([client.close, client.reset, client.socket.close])()
        except OSError:
            over.wait(0.01)


def end_one(program, seed):
    """The exit code (none when it took too long), the seconds it took, and the log."""
    chance, over = random.Random(seed), threading.Event()
    with bus.Daemon(program) as daemon:
        clients = [threading.Thread(target=be_busy, args=(seed * 100 + i, daemon.code, over))
                   for i in range(CLIENTS)]
        for client in clients:
            client.start()
        time.sleep(chance.uniform(0, LONGEST_RUN))
        exit_code, took = daemon.stop(LIMIT)
        log = daemon.log()
        over.set()
        if exit_code is None:
            daemon.process.kill()
        for client in clients:
            client.join()
        return exit_code, took, log


def main():
    options = bus.command_line(__doc__, moments=100, seed=1)
    stop = multiprocessing.Event()
    traffic = multiprocessing.Process(target=flood, args=(stop,), daemon=True)
    traffic.start()
    times, failures = [], 0
    for seed in range(options.seed, options.seed + options.moments):
        exit_code, took, log = end_one(options.daemon, seed)
        times.append(took)
        if exit_code != 0 or not log.endswith("[BridgeServer] Stopped\n"):
            failures += 1
            print(f"FAILED: --seed {seed}: exit code {exit_code} after {took:.2f} s; the log ends:")
            print("\n".join(log.splitlines()[-15:]))
    stop.set()
    print(f"{len(times) - failures} of {len(times)} ended in order; seconds: median "
          f"{sorted(times)[len(times) // 2]:.2f}, longest {max(times):.2f}")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
