"""What hvlogger does over links of every kind and when others misbehave: bench/run.sh reliability [--runs N] [CASE...]

Runs the cases named ("links" and "peers": all of that kind), or all, each in network and mount
namespaces of its own. A case is a function that prints what it found; one that raises has failed.
"""

import argparse
import concurrent.futures
import os
import pathlib
import subprocess
import sys

import dump
import fleet
import local_log
import links
import peers
import terminal

# These mostly wait, so they wait side by side; the others need the processor to themselves.
PATIENT = (peers.vanished_viewer, peers.vanished_viewer_of_a_busy_log, peers.vanished_paused_viewer,
           peers.stopped_viewer, peers.vanished_device, peers.vanished_device_that_is_asked, peers.silent_host,
           peers.restart, peers.restart_with_a_paused_viewer)
CASES = {case.__name__: case for case in (
    *links.CASES, *PATIENT, peers.stalled_viewer, peers.floods, peers.no_low_descriptors, peers.signals,
    terminal.hostile_text,
    dump.flood_of_triggers, dump.flood_of_commands, dump.full_disk,
    local_log.stalled_log, fleet.fleet)}
ISOLATED = pathlib.Path(__file__).parents[2] / "tests/support/isolated.sh"


def run(name, runs):
    """Runs a case and prints what it found; returns its name if it failed."""
    found = [subprocess.run([ISOLATED, sys.executable, "-uB", __file__, "--inside", name], stdout=subprocess.PIPE,
                            env={**os.environ, "RUN": str(number)}) for number in range(1, runs + 1)]
    print(f"{name}: {CASES[name].__doc__}\n" + b"".join(each.stdout for each in found).decode(), end="", flush=True)
    return name if any(each.returncode for each in found) else None


def main():
    parser = argparse.ArgumentParser(description=f"Cases: {' '.join(CASES)}")
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("case", nargs="*", choices=[*CASES, "links", "peers", []])
    chosen = parser.parse_args()
    names = [name for name in CASES if not chosen.case or {name, CASES[name].__module__} & {*chosen.case}]
    patient = [name for name in names if CASES[name] in PATIENT]
    with concurrent.futures.ThreadPoolExecutor(len(PATIENT)) as together:
        failed = [*together.map(lambda name: run(name, chosen.runs), patient)]
    failed += [run(name, chosen.runs) for name in names if name not in patient]
    return f"failed: {' '.join(filter(None, failed))}" if any(failed) else None


if __name__ == "__main__":
    sys.exit(CASES[sys.argv[2]]() if sys.argv[1:2] == ["--inside"] else main())
