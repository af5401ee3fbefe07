"""What hvlogger does when others misbehave: bench/run.sh reliability [CASE...]

Runs the cases named, or all, each in network and mount namespaces of its own. A case is a function
that prints what it found; one that raises has failed.
"""

import pathlib
import subprocess
import sys

import dump
import fleet
import local_log
import store
import terminal
import viewers

CASES = {case.__name__: case for case in (
    viewers.stalled_viewer, viewers.vanished_viewer, viewers.vanished_viewer_of_a_busy_log,
    terminal.hostile_text, terminal.harmless_text,
    dump.flood_of_triggers, dump.flood_of_commands, dump.full_disk, dump.planted_files,
    local_log.stalled_log, store.growth, fleet.fleet)}
ISOLATED = pathlib.Path(__file__).parents[2] / "tests/support/isolated.sh"


def main(names):
    if names[:1] == ["--inside"]:
        return CASES[names[1]]()
    if unknown := set(names) - set(CASES):
        return f"no such case: {' '.join(unknown)}; there are {' '.join(CASES)}"
    failed = []
    for name in names or CASES:
        print(f"{name}: {CASES[name].__doc__}", flush=True)
        if subprocess.run([ISOLATED, sys.executable, "-B", __file__, "--inside", name]).returncode:
            failed.append(name)
    return f"failed: {' '.join(failed)}" if failed else None


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
