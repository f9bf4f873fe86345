#!/usr/bin/env python3
"""Serves mixed traffic for a long time and judges whether tarnlinkd stays as it was.

GOOSE of several control blocks and Sampled Values flow all the time. One client takes everything;
others come and go, publish, withdraw, stop reading, are reset, or never finish a handshake. From
time to time all of those pause: at these quiet points memory, descriptors and threads are read.
Fails unless

- the steady client got every frame of every stream once and in order,
- descriptors and threads are the same at all quiet points after the first,
- the median of resident memory in the last third of the quiet points exceeds that of the first
  third after warm-up by no more than RSS_GROWTH,
- the log has grown with what clients did and not with the frames,
- SIGTERM then ends the daemon with exit code 0.
"""

import multiprocessing
import random
import statistics
import sys
import time

import bus

CONTROL_BLOCKS = 4
GOOSE_SHARE = 5  # Of so many frames one is GOOSE.
TICK = 0.002  # Seconds between two bursts of frames.
RSS_GROWTH = 1024  # KiB.
WARM_UP = 0.2  # Of the quiet points.
START_LINES = 20  # That the bridge and the steady client may cost.
LINES_AN_ACTION = 5  # Log lines that one connection or command may cost.
CHURNERS = 3
SETTLE_TIME = 1.5  # Seconds; a closing connection has one second.
SILENCE = 3  # Seconds without an event after which the steady client has what it will get.
PATIENCE = 10  # Seconds that a visit may take to end.
STOP_LIMIT = 10  # Seconds: on a busy machine the kernel takes its time to close a packet socket.


def reference(block):
    return f"IED1LD0/LLN0$GO$gcb{block}"


def send_traffic(rate, stop, sent):
    """Frames at an even rate until told to stop; then the counts of each stream."""
    wire = bus.Wire()
    goose = [bus.GooseStream(0x1000 + i, reference(i)) for i in range(CONTROL_BLOCKS)]
    sv = bus.SvStream()
    count, start = 0, time.monotonic()
    while not stop.is_set():
        due = int((time.monotonic() - start) * rate)
        while count < due:
            is_goose = count % GOOSE_SHARE == 0
            stream = goose[count // GOOSE_SHARE % CONTROL_BLOCKS] if is_goose else sv
            wire.send(stream.next())
            count += 1
        time.sleep(TICK)
    sent.put([stream.number - stream.FIRST for stream in goose] + [sv.number])


def take_everything(code, ready, verdict):
    """The steady client: compares the numbers of each stream with those before."""
    client = bus.Client(code, limit=SILENCE)
    client.say("subscribe_goose")
    client.say("subscribe_sv")
    client.say("ping", timestamp=0)
    client.await_event("pong")
    ready.set()
    blocks = {reference(i): i for i in range(CONTROL_BLOCKS)}
    taken = [0] * (CONTROL_BLOCKS + 1)
    faults = []
    while True:
        try:
            events = client.events()
        except OSError as error:
            verdict.put((str(error), taken, faults))
            return
        for event in events:
            if event["event"] == "goose_message":
                block = blocks.get(event["message"]["goCBRef"])
                if block is None:
                    continue  # Published by the bridge itself.
                number = event["message"]["sqNum"] - bus.GooseStream.FIRST
            elif event["event"] == "sv_apdu":
                if event["srcMac"] != bus.SOURCE.hex(":").upper():
                    continue
                block, number = CONTROL_BLOCKS, bus.SvStream.number_of(event)
            else:
                continue
            if number != taken[block] and len(faults) < 20:
                faults.append(f"stream {block}: {number} came after {taken[block] - 1}")
            taken[block] = number + 1


def wander(seed, code, pause, paused, stop, actions):
    """One client after another, each another kind, until told to stop."""
    chance = random.Random(seed)
    while not stop.is_set():
        if pause.is_set():
            paused.release()
            while pause.is_set():
                time.sleep(0.01)
            continue
        visit = chance.choice([listen, listen, listen, publish, stop_reading, stay_outside])
        try:
            actions.value += visit(chance, code)
        except OSError as error:
            sys.exit(f"{visit.__name__} (seed {seed}): {error}")


def leave(chance, client):
    chance.choice([client.close, client.reset, client.socket.close])()


def listen(chance, code):
    client, actions = bus.Client(code), 3
    if chance.random() < 0.7:
        members = {"goCBRefFilter": chance.choice(["gcb1", "gcb", "nobody"])}
        client.say("subscribe_goose", **members)
        client.await_event("bridge_status")
        actions += 1
    if chance.random() < 0.4:
        client.say("subscribe_sv", appIdFilter=chance.choice([0x4000, 0x4001]))
        actions += 1
    end = time.monotonic() + chance.uniform(0, 1)
    client.say("ping", timestamp=1)
    while time.monotonic() < end:
        client.events()
        client.say("ping", timestamp=1)
    if chance.random() < 0.5:
        client.say("unsubscribe_sv")
        client.say("unsubscribe_goose")
        client.await_event("bridge_status")
        actions += 2
    leave(chance, client)
    return actions


def publish(chance, code):
    client, count = bus.Client(code), chance.randint(1, 5)
    for _ in range(count):
        client.say("publish_goose", **bus.publication("BRIDGE/LLN0$GO$churn"))
        client.await_event("bridge_status")
        client.say("publish_sv_apdu", pduBase64="QAAAEwAAAABgCYABAYABAQE=", interface=bus.BUS)
        time.sleep(chance.uniform(0, 0.2))
    client.say("unpublish_goose")
    client.await_event("bridge_status")
    leave(chance, client)
    return 4 + count * 2


def stop_reading(chance, code):
    client = bus.Client(code)
    client.say("subscribe_goose")
    client.say("subscribe_sv")
    time.sleep(chance.uniform(0, 2))
    client.reset()
    return 5


def stay_outside(chance, _):
    if chance.random() < 0.5:
        client = bus.Client()
        client.say("auth", token="wrong")
        client.await_event("auth_result")
        client.say("subscribe_goose")
        client.await_event("error")
        leave(chance, client)
    else:
        half = bus.connect()
        half.sendall(chance.choice([b"", b"GET / HTTP/1.1\r\nUpg", b"\0" * 100, b"GET /\r\n\r\n"]))
        time.sleep(chance.uniform(0, 0.1))
        half.close()
    time.sleep(0.05)
    return 4


class Sample:
    def __init__(self, daemon):
        self.rss = daemon.memory() >> 10  # KiB.
        self.threads = daemon.threads()
        self.descriptors = daemon.descriptors()
        self.cpu = daemon.processor_time()

    def __str__(self):
        return f"{self.rss} KiB, {self.descriptors} descriptors, {self.threads} threads"


def judge(samples, sent, taken, faults, log_lines, actions, exit_code):
    """What does not hold, one line each."""
    complaints = list(faults)
    if taken != sent:
        complaints.append(f"the steady client got {taken} of {sent} frames")
    for name in ("descriptors", "threads"):
        values = sorted({getattr(sample, name) for sample in samples[1:]})
        if len(values) != 1:
            complaints.append(f"{name} at quiet points: {values}")
    warm = [sample.rss for sample in samples[max(1, int(len(samples) * WARM_UP)):]]
    third = len(warm) // 3
    if third == 0:
        return [*complaints, f"{len(samples)} quiet points are too few to judge memory by"]
    growth = statistics.median(warm[-third:]) - statistics.median(warm[:third])
    print(f"resident memory: {growth:+.0f} KiB between the first and the last third")
    if growth > RSS_GROWTH:
        complaints.append(f"resident memory grew by {growth:.0f} KiB: {warm}")
    if log_lines > START_LINES + LINES_AN_ACTION * actions:
        complaints.append(f"{log_lines} log lines for {actions} connections and commands")
    if exit_code != 0:
        complaints.append(f"SIGTERM: exit code {exit_code} within {STOP_LIMIT} s")
    return complaints


def soak(options, daemon):
    context = multiprocessing.get_context("fork")
    ready, pause, stop, stop_traffic = (context.Event() for _ in range(4))
    sent, verdict = context.SimpleQueue(), context.SimpleQueue()
    paused = context.Semaphore(0)
    actions = [context.Value("Q", 0) for _ in range(CHURNERS)]

    def begin(work, *arguments):
        process = context.Process(target=work, args=arguments, daemon=True)
        process.start()
        return process

    steady = begin(take_everything, daemon.code, ready, verdict)
    if not ready.wait(bus.START_LIMIT):
        raise RuntimeError("the steady client got no subscription")
    traffic = begin(send_traffic, options.rate, stop_traffic, sent)
    start = time.monotonic()
    wanderers = [begin(wander, options.seed * 1000 + i, daemon.code, pause, paused, stop, count)
                 for i, count in enumerate(actions)]
    everyone = [steady, traffic, *wanderers]

    samples = []
    while time.monotonic() - start < options.seconds:
        time.sleep(options.interval)
        pause.set()
        for _ in wanderers:
            if not paused.acquire(timeout=PATIENCE) or not all(p.is_alive() for p in everyone):
                raise RuntimeError("somebody ended early or hangs:\n" + daemon.log()[-2000:])
        time.sleep(SETTLE_TIME)
        samples.append(Sample(daemon))
        print(f"{time.monotonic() - start:6.0f} s: {samples[-1]}", flush=True)
        pause.clear()

    stop.set()
    for process in wanderers:
        process.join()
    stop_traffic.set()
    duration = time.monotonic() - start
    counts = sent.get()
    end, taken, faults = verdict.get()
    last = Sample(daemon)
    exit_code, took = daemon.stop(STOP_LIMIT)
    done = sum(count.value for count in actions)
    lines = daemon.log().count("\n")
    print(f"{sum(counts)} frames in {duration:.0f} s, {sum(counts) / duration:.0f}/s; the steady "
          f"client got {sum(taken)}, then {end}; {done} connections and commands; {lines} log lines; "
          f"{last.cpu:.0f} s of processor time; stopped in {took:.2f} s")
    return judge(samples, counts, taken, faults, lines, done, exit_code)


def main():
    options = bus.command_line(__doc__, seconds=30.0, rate=5000, interval=0.0, seed=1)
    options.interval = options.interval or max(2, min(20, options.seconds / 20))
    with bus.Daemon(options.daemon) as daemon:
        complaints = soak(options, daemon)
    for complaint in complaints:
        print(f"FAILED: {complaint}")
    sys.exit(1 if complaints else 0)


if __name__ == "__main__":
    main()
