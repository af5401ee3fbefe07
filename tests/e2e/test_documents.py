"""What the documents have people do works: links, commands, examples, what becomes of which datagram."""

import pathlib
import re
import subprocess
import sys

import pytest

from support.harness import MARKER, PROGRAM, send_datagrams

TOP = pathlib.Path(__file__).parents[2]
README, PROTOCOL, SECURITY = ((TOP / name).read_text() for name in ("README.md", "docs/protocol.md", "docs/security.md"))
INCLUDES = "".join(f'#include "{name}.h"\n' for name in ("QELlogger5", "QELlogger5_5424", "QELlogger5_UDP"))


def fenced(document, language):
    return re.search(rf"^```{language}\n(.*?)^```$", document, re.M | re.S)[1]


def indented(document, start):
    """The indented line of a document that begins so."""
    return re.search(rf"^    (?:desk\$ )?({start} .*)$", document, re.M)[1]


def passed_on(device):
    """Program and text of the next line that the local log gets."""
    return "".join(re.fullmatch(r"<\d+>\w+ [ \d]\d [\d:]{8} (.*?)\[\d+\](: .*)", device.record().decode(), re.S).groups())


@pytest.mark.parametrize("document", [TOP / "README.md", *(TOP / "docs").glob("*.md")], ids=lambda path: path.name)
def test_links_lead_somewhere(document):
    targets = re.findall(r"\]\(([^)]+)\)", document.read_text())
    assert [target for target in targets if not (document.parent / target).exists()] == []


def test_datagrams_become_what_the_protocol_says(log_device, server):
    rows = re.findall(r"^\| `(.*?)` \| (\d) \| (.*?)\| `(.*)` \|$", PROTOCOL, re.M)
    assert len(rows) > 5
    stored, shown = 0, ["Requesting all messages"]
    for datagram, messages, lines, line in rows:
        stored += int(messages)
        shown += re.findall("`(.*?)`", lines)
        assert server.collect(datagram.encode()).count(b"\n") == stored
        assert passed_on(log_device) == line
    with subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as viewer:
        assert [viewer.stdout.readline().decode().strip("\r\n") for _ in shown] == shown
        viewer.kill()


def test_the_viewer_of_the_protocol(server):
    assert fenced(PROTOCOL, "python") == (TOP / "examples/viewer.py").read_text()
    command = indented(PROTOCOL, "python3").replace("10.0.0.5", "127.0.0.1").split()
    first, second, hostile = (f"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - {text}"
                              for text in ("It's done", "done", "Grüße\x1b[2J"))
    server.collect((first + second).encode())
    with subprocess.Popen(command, cwd=TOP, encoding="utf-8", stdout=subprocess.PIPE,
                          env={"PYTHONIOENCODING": "utf-8"}) as viewer:
        assert [viewer.stdout.readline() for _ in range(2)] == [first + "\n", second + "\n"]
        for sent, shown in (first + second, second), (hostile, hostile.replace("\x1b", r"\x1b")):
            send_datagrams(sent.encode())
            assert viewer.stdout.readline() == shown + "\n"
        server.stop()
        assert (viewer.stdout.read(), viewer.wait()) == ("", 0)


@pytest.mark.parametrize("command", [[sys.executable, "-c", fenced(README, "python")], ["bash", "-c", indented(README, "printf")]],
                         ids=["python", "bash"])
def test_the_ways_to_log(log_device, server, command):
    subprocess.run(command, check=True)
    assert passed_on(log_device) == "sip: Call setup done"
    send_datagrams(MARKER)
    assert re.match(rb"<1[0-5]>1 \d{4}-\d\d-\d\dT[0-9:.]+Z dev01 sip \d+ - Call setup done", server.dump())


def test_the_lines_for_cpp_compile():
    folders = [f"-I{TOP}/lib/{room}" for room in ("logger", "socket", "time")]
    subprocess.run(["c++", "-std=c++20", "-fsyntax-only", *folders, "-x", "c++", "-"], check=True, text=True,
                   input=INCLUDES + "void f() {" + fenced(README, "cpp") + "}")


@pytest.mark.parametrize("command", [
    ["nft", "-c", "-f", "/dev/stdin"], ["ssh", "-G", *indented(SECURITY, "ssh").split()[1:]],
    *(["rsyslogd", "-N1", "-f", TOP / "examples/fleet" / name] for name in ("device.conf", "centre.conf"))], ids=lambda c: str(c[-1]))
def test_what_is_for_other_programs_is_well_formed(command):
    check = subprocess.run(command, capture_output=True, text=True, input=fenced(SECURITY, "nft"))
    assert check.returncode == 0, check.stderr
