import re, socket, sys

if len(sys.argv) != 2:
    sys.exit("usage: viewer.py ADDRESS")
server = socket.create_connection((sys.argv[1], 50000))
server.sendall(b"\1\0\0\0")  # everything stored; what is new follows without being asked for
text, arrived = b"", b" "
while arrived:
    server.settimeout(0.1 if text else None)  # a message ends where the next one begins, or in a pause
    try:
        arrived = server.recv(65536)
        *whole, text = re.split(rb"(?=<\d+>\d)", text + arrived)
    except TimeoutError:
        whole, text = [text], b""
    for message in filter(None, whole if arrived else [*whole, text]):
        message = message.decode(errors="replace")
        print("".join(c if c.isprintable() else ascii(c)[1:-1] for c in message), flush=True)
