"""Sending at a rate, and what runs beside it."""

import multiprocessing
import time

fork = multiprocessing.get_context("fork")


def paced(rate, count):
    """Yields the numbers up to count in ranges, each when it is due at so many a second."""
    start, done = time.monotonic(), 0
    while done < count:
        due = min(int((time.monotonic() - start) * rate), count)
        yield range(done, due)
        done = due
        time.sleep(0.001)


def beside(function, *arguments):
    """Runs a function in a process of its own, which ends with this one at the latest."""
    process = fork.Process(target=function, args=arguments, daemon=True)
    process.start()
    return process
