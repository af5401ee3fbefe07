"""Log texts that attack the terminal: what reaches the screen, and what stays as it was sent."""

import subprocess
import tempfile

from harness import (HYPHENS, MARKER, Server, TestCase, Viewer, main, send_datagrams, wait_for_dump)

# (program, process id, text) as sent, and as a terminal shows them.
LINES = [
    ((b"sip", b"1", b"\x1b[2J\x1b]0;title\x07"), (b"sip", b"1", b"^[[2J^[]0;title^G")),
    ((b"sip", b"\x1b[31m", b"in the process id"), (b"sip", b"^[[31m", b"in the process id")),
    ((b"ui", b"2", b"\x1b[31m not shown at all"), None),
    ((b"nmos", b"3", b"refused\raccepted"), (b"nmos", b"3", b"refused^Maccepted")),
    ((b"nmos", b"4", b"at its end\r"), (b"nmos", b"4", b"at its end^M")),
    ((b"nmos", b"5", b"two\r\nlines\n\rand\tmore"), (b"nmos", b"5", b"two\r\nlines\n\rand\tmore")),
    ((b"sap", b"6", b"\x01\b\x0b\x0c\x0e\x7f"), (b"sap", b"6", b"^A^H^K^L^N^?")),
    ((b"sap", b"7", "Grüße, 世界 🙂".encode()), (b"sap", b"7", "Grüße, 世界 🙂".encode())),
    ((b"sap", b"8", b"\xc2\x9b31m\x9b31m"), (b"sap", b"8", rb"\u009B31m\x9B31m")),
    ((b"router", b"9", b"\xc0\x9b \xed\xa0\x80 \xf4\x90\x80\x80 \xff"),
     (b"router", b"9", rb"\xC0\x9B \xED\xA0\x80 \xF4\x90\x80\x80 \xFF")),
    ((b"router", b"10", b"cut off \xe2\x82"), (b"router", b"10", rb"cut off \xE2\x82")),
    ((b"router", b"11", b"end"), (b"router", b"11", b"end")),
]


def datagram(program, process, text):
    return b"<14>1 2024-03-05T10:20:30.123Z dev01 %s %s - %s" % (program, process, text)


def line(program, process, text):
    return b"2024-03-05 10:20:30.123 %s %s-6: %s\r\n" % (program, process, text)


class TerminalText(TestCase):
    def test_control_characters_reach_files_and_pipes_but_no_terminal(self):
        sent = [datagram(*fields) for fields, _ in LINES]
        screen = b"".join(line(*fields) for _, fields in LINES if fields)
        piped = b"".join(line(*fields) for fields, on_screen in LINES if on_screen)
        received = [datagram(*fields) + b"\n" for fields, on_screen in LINES if on_screen]
        with Server() as server, tempfile.TemporaryDirectory() as desk:
            send_datagrams(*sent, MARKER)
            self.assertEqual(server.dump(), b"".join(text + b"\n" for text in sent))
            with Viewer(cwd=desk) as viewer:
                viewer.expect(viewer.GREETING + screen)
                viewer.press(b"a", HYPHENS + screen + b"\r\n")
                for fields, on_screen in LINES:
                    if on_screen:
                        send_datagrams(datagram(*fields))
                        viewer.expect(line(*on_screen))
                viewer.press(b"A", viewer.GREETING + screen * 2)
                viewer.press(b"f", b"------ logger.txt created\r\n")
                self.assertEqual(wait_for_dump(desk), b"".join(received) * 2)
                viewer.keys(b"q")
                self.assertEqual(viewer.wait(), 0)
            # The keyboard is a terminal, what is shown goes to a pipe.
            with Viewer(stdout=subprocess.PIPE) as viewer:
                output = viewer.process.stdout
                self.assertEqual(output.read(len(viewer.GREETING + piped * 2)), viewer.GREETING + piped * 2)
                viewer.keys(b"q")
                self.assertEqual(viewer.wait(), 0)
                output.close()


if __name__ == "__main__":
    main()
