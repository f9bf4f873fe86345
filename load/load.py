#!/usr/bin/env python3
"""Loads tarnlinkd with many clients and bad ones, strangers and floods, and prints figures.

Each scenario has a daemon of its own on a private network and says which rules it holds it to.
Arguments name scenarios; --quick makes each last a few seconds.
"""

import resource
import subprocess
import sys

import bus
import crowd
import flood
import strangers

SCENARIOS = {scenario.__name__: (scenario, module.DAEMON)
             for module in (crowd, strangers, flood) for scenario in module.SCENARIOS}


def main():
    called = bus.command_line(__doc__, SCENARIOS, quick=False)
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    failures = 0
    for name in called.names or SCENARIOS:
        scenario, daemon_options = SCENARIOS[name]
        with bus.Daemon(called.daemon, daemon_options) as daemon:
            try:
                crowd.warm_up(daemon)
                print(f"{name}: {scenario(daemon, called.quick)}", flush=True)
                daemon.process.terminate()
                bus.check(daemon.process.wait(3) == 0, "SIGTERM did not end it with exit code 0")
            except (bus.Failed, OSError, subprocess.TimeoutExpired) as failure:
                failures += 1
                print(f"{name}: FAILED: {failure!r}\n{daemon.log()[-1000:]}", flush=True)
    sys.exit(failures != 0)


if __name__ == "__main__":
    main()
