"""What the documents say is true: their commands run, their programs work, their tables hold."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from support.harness import LOG_DEVICE_TAKEN, MARKER, PROGRAM, LogDevice, Server, send_datagrams

TOP = pathlib.Path(__file__).parents[2]
DOCUMENTS = [TOP / "README.md", *sorted((TOP / "docs").glob("*.md"))]


def text_of(name):
    return (TOP / name).read_text()


def fenced(name, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", text_of(name), re.M | re.S)


def indented(name, start):
    """The indented lines of a document that begin with the given word."""
    return re.findall(rf"^    ({start} .*)$", text_of(name), re.M)


def rows(name, heading):
    """The rows of the table whose first heading is given, each a list of its cells' code spans."""
    table = text_of(name).split(f"\n| {heading} |", 1)[1].split("\n\n")[0].split("\n")[2:]
    return [[re.findall("`([^`]*)`", cell) for cell in re.split(r" ?\| ?", line)[1:-1]] for line in table]


def with_local_log(test):
    """Runs test(log device) with a server whose local log it reads."""
    with LogDevice() as device, Server() as server:
        return test(device, server)


def passed_on(device):
    """Program and text of the next line that the local log gets."""
    record = re.fullmatch(r"<\d+>\w+ [ \d]\d [\d:]{8} (.*?)\[\d+\](: .*)", device.record().decode(), re.S)
    return record[1] + record[2]


class Documents(unittest.TestCase):
    def test_links_lead_somewhere(self):
        for document in DOCUMENTS:
            for target in re.findall(r"\]\(([^)]+)\)", document.read_text()):
                with self.subTest(document=document.name, target=target):
                    self.assertTrue((document.parent / target).exists())

    def test_limits_are_those_of_the_code(self):
        table = re.findall(r"^\| .* \| `(.*)` \| \[.*\]\(\.\./(.*)\) \|$", text_of("docs/architecture.md"), re.M)
        self.assertGreater(len(table), 10)
        for limit, place in table:
            with self.subTest(limit=limit):
                self.assertRegex(text_of(place), re.escape(limit) + r"(?![\w'])")

    @unittest.skipIf(LOG_DEVICE_TAKEN, "no log device of its own")
    def test_datagrams_become_what_the_protocol_says(self):
        table = rows("docs/protocol.md", "datagram")
        self.assertGreater(len(table), 5)

        def run(device, server):
            stored = b""
            for (datagram,), _, _, (line,) in table:
                send_datagrams(datagram.encode())
                self.assertEqual(passed_on(device), line)
                send_datagrams(MARKER)
                dump = server.dump()
                counts.append(dump.count(b"\n") - stored.count(b"\n"))
                stored = dump
            lines = [line for row in table for line in row[2]]
            with subprocess.Popen([PROGRAM, "client"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as viewer:
                shown = [viewer.stdout.readline().decode().strip("\r\n") for _ in range(len(lines) + 1)]
                viewer.kill()
            self.assertEqual(shown[1:], lines)
        counts = []
        with_local_log(run)
        numbers = re.findall(r"^\| `.*?` \| (\d) \|", text_of("docs/protocol.md"), re.M)
        self.assertEqual(counts, [int(number) for number in numbers])

    def test_the_viewer_of_the_protocol(self):
        self.assertEqual(fenced("docs/protocol.md", "python"), [text_of("examples/viewer.py")])
        command, = indented("docs/protocol.md", "python3")
        first, second, hostile = (f"<14>1 2024-03-05T10:20:30.123Z dev01 sip 412 - {text}"
                                  for text in ("It's done", "done", "Grüße\x1b[2J"))
        with Server() as server:
            send_datagrams((first + second).encode(), MARKER)
            server.dump()
            with subprocess.Popen(command.replace("10.0.0.5", "127.0.0.1").split(), cwd=TOP, encoding="utf-8",
                                  stdout=subprocess.PIPE, env={"PYTHONIOENCODING": "utf-8"}) as viewer:
                self.assertEqual([viewer.stdout.readline() for _ in range(2)], [first + "\n", second + "\n"])
                for sent, shown in (first + second, second), (hostile, hostile.replace("\x1b", r"\x1b")):
                    send_datagrams(sent.encode())
                    self.assertEqual(viewer.stdout.readline(), shown + "\n")
                server.stop()
                self.assertEqual((viewer.stdout.read(), viewer.wait()), ("", 0))

    @unittest.skipIf(LOG_DEVICE_TAKEN, "no log device of its own")
    def test_the_ways_to_log(self):
        python, = fenced("README.md", "python")
        shell, = indented("README.md", "logger")
        for command in [sys.executable, "-c", python], ["sh", "-c", shell]:
            with self.subTest(command=command):
                def run(device, server):
                    subprocess.run(command, check=True)
                    self.assertEqual(passed_on(device), "sip: Call setup done")
                    send_datagrams(MARKER)
                    self.assertRegex(server.dump(), rb"^<1[0-5]>1 \d{4}-\d\d-\d\dT[^ ]+ [^ ]+ sip \d+ [^ ]* ?- Call")
                with_local_log(run)

    def test_the_cpp_lines_compile_and_are_those_of_the_example(self):
        lines = fenced("README.md", "cpp")[0]
        example = text_of("examples/producer.cpp")
        self.assertEqual([line for line in lines.split("\n")[:5] if f"    {line}\n" not in example], [])
        if shutil.which("c++") is None:
            self.skipTest("no c++")
        includes = "".join(re.findall(r'#include "QEL.*\n', example))
        around = includes + "constexpr int collectorPort = 50000; std::string hostName(); void f(std::string_view name) {"
        folders = [f"-I{TOP}/lib/{room}" for room in ("logger", "socket", "time")]
        subprocess.run(["c++", "-std=c++20", "-fsyntax-only", *folders, "-x", "c++", "-"], check=True,
                       input=around + lines + "}", text=True)

    def test_settings_are_those_of_the_unit(self):
        unit = text_of("packaging/hvlogger.service").split("\n")
        settings = re.findall(r"`([A-Z]\w+=[\w-]+)`", text_of("docs/security.md"))
        self.assertGreater(len(settings), 3)
        self.assertEqual([setting for setting in settings if setting not in unit], [])

    def test_commands_and_files_for_other_programs_are_well_formed(self):
        rules, = fenced("docs/security.md", "nft")
        tunnel, = indented("docs/security.md", "desk\\$ ssh")
        with tempfile.NamedTemporaryFile("w", suffix=".nft") as file:
            file.write(rules)
            file.flush()
            for command in (["nft", "-c", "-f", file.name],
                            ["ssh", "-G", *tunnel.split()[2:]],
                            ["rsyslogd", "-N1", "-f", TOP / "examples/fleet/device.conf"],
                            ["rsyslogd", "-N1", "-f", TOP / "examples/fleet/centre.conf"]):
                with self.subTest(command=command):
                    if shutil.which(command[0]) is None:
                        self.skipTest(f"no {command[0]}")
                    check = subprocess.run(command, capture_output=True, text=True)
                    if "relp.so" in check.stderr:
                        self.skipTest("no rsyslog-relp")
                    self.assertEqual(check.returncode, 0, check.stderr)

    def test_the_picture_is_what_the_viewer_shows(self):
        with tempfile.TemporaryDirectory() as folder:
            picture = pathlib.Path(folder, "viewer.svg")
            subprocess.run([sys.executable, "-B", TOP / "scripts/picture.py", picture], check=True)
            self.assertEqual(picture.read_text(), text_of("docs/viewer.svg"))
