"""What stands in the way of a dump: floods, a busy job, left-over files."""

import os
import pathlib
import shutil

from support.harness import MARKER, SEND_ALL, WRITE_FILE, RawViewer, Server, await_true, send_datagrams


def test_flood_of_requests_runs_one_job_and_leaves_nothing(tmp_path):
    """gzip is held up while hundreds of requests arrive: its file stays as it is, nothing piles up."""
    held, started, tool = tmp_path / "held", tmp_path / "started", tmp_path / "gzip"
    tool.write_text(f"#!/bin/sh\necho >>{started}\nwhile [ -e {held} ]; do sleep 0.1; done\n"
                    f'exec {shutil.which("gzip")} "$@"\n')
    tool.chmod(0o755)
    held.touch()
    pathlib.Path("/tmp/logger.txt.gz").write_text("left over")
    with Server(env={**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}) as server, RawViewer() as viewer:
        viewer.send(SEND_ALL)
        viewer.log(*[f"before {n}" for n in range(100)])
        before = viewer.received.replace(b"<14>1", b"\n<14>1")[1:] + b"\n"
        send_datagrams(MARKER)
        await_true(started.exists, "the job begins")
        for n in range(10):
            send_datagrams(*[MARKER] * 20)
            for _ in range(5):
                viewer.send(WRITE_FILE)
            viewer.log(f"during {n}")
        assert started.read_text() == "\n"
        descriptors = server.descriptors()  # the one that tells the job's end is kept
        held.unlink()
        assert server.dump() == before
        await_true(lambda: not server.jobs(), "the jobs are gone")
        assert server.descriptors() == descriptors
