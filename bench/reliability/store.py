"""How far the store can be made to grow."""

from support.harness import Server, await_true, send_datagrams, status, unread

CAPACITY, DATAGRAM, SHORTEST = 1 << 20, 5000, b"<1>1    - "


def growth():
    """A store filled with the shortest messages and then sent the longest."""
    with Server() as server:
        def flood(datagram, count):
            """No faster than the server reads."""
            for start in range(0, count, 10):
                send_datagrams(*[datagram] * min(10, count - start))
                await_true(lambda: not unread(0, "udp"), "the server reads")

        def report(when):
            print(f"    {when}: resident memory {status(server.process.pid, 'VmRSS') / 1024:.0f} MiB", flush=True)

        report("at start")
        messages, in_one = CAPACITY // len(SHORTEST), DATAGRAM // len(SHORTEST)
        flood(SHORTEST * in_one, messages // in_one + 1)
        report(f"{messages} messages of {len(SHORTEST)} bytes")
        for done in 10_000, 20_000, messages:
            flood(b"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - ".ljust(DATAGRAM, b"x"),
                  10_000 if done <= 20_000 else messages - 20_000)
            report(f"{done} of {DATAGRAM} bytes behind them")
