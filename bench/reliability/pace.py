"""Sending at a rate."""

import time


def paced(rate, count):
    """Yields the numbers up to count in ranges, each when it is due at so many a second."""
    start, done = time.monotonic(), 0
    while done < count:
        due = min(int((time.monotonic() - start) * rate), count)
        yield range(done, due)
        done = due
        time.sleep(0.001)
