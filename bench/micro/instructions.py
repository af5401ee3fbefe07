#!/usr/bin/env python3
"""Counts the instructions of one append into a full store and of one server cycle, the same on every
run and whatever else the machine does, for comparing one version with the next.

    bench/run.sh instructions
"""
import re
import subprocess


FEW, MANY = 1_000, 3_000
COUNTED = {"append": "QELloggerSyslogFmt::append(*", "cycle": "QELselector::runOnce()"}


def count(mode, times):
    run = subprocess.run(
        ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
         f"--toggle-collect={COUNTED[mode]}", "build-bench/bench/micro/instructions", mode,
         str(times)], check=True, capture_output=True, text=True)
    return int(re.search(r"Collected : (\d+)", run.stderr)[1])


def main():
    for mode in COUNTED:
        # The difference leaves out what only the first ones need.
        each = (count(mode, MANY) - count(mode, FEW)) / (MANY - FEW)
        print(f"{mode}: {each:,.0f} instructions")


if __name__ == "__main__":
    main()
