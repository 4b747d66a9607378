#!/usr/bin/env python3
"""A peer that has none of the layer's libraries: docs/protocol.md, "Taking part", as a program.

usage: peer.py SPECIFIER serve               answers requests and pings until it is ended
       peer.py SPECIFIER ping TARGET [KEY]   prints the answer
       peer.py SPECIFIER ask TARGET BODY     prints each reply
With TRACE in the environment, every text that goes out and comes in is written to standard error; with
PLAIN, the peer knows no sealed texts, as those of old."""

import fcntl
import hashlib
import os
import select
import socket
import stat
import struct
import sys
import time

PREFIX = rb"\\.\port\Nord_and_Sud_"
REPLIES = ("Received", "Result", "Error", "Processed", "Timeout")
SECONDS = 20  # for an answer
PLAIN = "PLAIN" in os.environ


def folder():
    for base in (os.environ.get("XDG_RUNTIME_DIR", ""), f"/run/user/{os.getuid()}"):
        if base.startswith("/") and os.path.isdir(base):
            found = os.stat(base)
            if found.st_uid == os.getuid() and not found.st_mode & 0o022:
                return base + "/convey"
    return f"/tmp/convey-{os.getuid()}"


def file_name(port):
    name = PREFIX + port.encode()
    keep = b"_-.#+=,"
    text = "".join(chr(byte) if chr(byte).isascii() and (chr(byte).isalnum() or byte in keep)
                   else f"%{byte:02X}" for byte in name)
    if len(text) > 80:
        text = text[:47] + "~" + hashlib.sha256(name).hexdigest()[:16].upper()
    return text


def lock(file, command, kind, start=0):
    """For the open file, from a byte to the end; the kind of lock that hinders it."""
    record = struct.pack("@hhlli4x", kind, os.SEEK_SET, start, 0, 0)
    return struct.unpack("@hhlli4x", fcntl.fcntl(file, command, record))[0]


class Port:
    """A name that this process owns, and what arrives there."""

    def __init__(self, name):
        os.makedirs(folder(), mode=0o700, exist_ok=True)
        self.connections, self.halves = {}, {}
        self.path = os.path.join(folder(), file_name(name))
        while True:
            flags = os.O_RDWR | os.O_CREAT | os.O_NOFOLLOW | os.O_CLOEXEC
            self.file = os.open(self.path + ".lock", flags, 0o600)
            os.fchmod(self.file, 0o600 | stat.S_ISVTX)
            lock(self.file, fcntl.F_OFD_SETLK, fcntl.F_WRLCK)  # OSError: it has an owner
            try:
                if os.path.samestat(os.fstat(self.file), os.stat(self.path + ".lock")):
                    break
            except FileNotFoundError:
                pass
            os.close(self.file)  # its owner has just ended
        os.write(self.file, b"%d %d\n" % (os.getpid(), os.stat("/proc/self/ns/pid").st_ino))
        lock(self.file, fcntl.F_OFD_SETLK, fcntl.F_UNLCK, 1)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        if os.path.exists(self.path + ".socket"):
            os.unlink(self.path + ".socket")
        with Place(self.path) as place:
            self.listener.bind(place)
        self.listener.listen(socket.SOMAXCONN)
        # Tells those who wait for the port that it is there, and all that it knows sealed texts.
        os.chmod(self.path + ".socket", 0o600 | stat.S_ISVTX | (0 if PLAIN else 0o100))

    def close(self):
        for end in (self.listener, *self.connections.values()):
            end.close()
        for suffix in (".socket", ".lock"):
            os.unlink(self.path + suffix)
        os.close(self.file)

    def texts(self, seconds):
        """What arrives within the time; each text has one message or several."""
        ends = {self.listener.fileno(): self.listener, **self.connections}
        found = []
        for number in select.select(list(ends), [], [], seconds)[0]:
            if number == self.listener.fileno():
                connection = self.listener.accept()[0]
                if is_ours(connection):
                    self.connections[connection.fileno()] = connection
                continue
            packet = ends[number].recv(1 << 21)
            if number in self.halves and packet:
                length, text, sealed = self.halves.pop(number)
                if len(text) == length:  # the seal, which comes last and belongs in front
                    found.append(packet + text)
                    trace("< sealed", packet)
                elif len(text) + len(packet) < length or sealed:
                    self.halves[number] = (length, text + packet, sealed)
                else:
                    found.append(text + packet)
            elif len(packet) < 16 or packet[:5] != b"CVMP\x01" or packet[5] > (2 if PLAIN else 3):
                self.connections.pop(number).close()  # the end, or no peer
            elif packet[5] == 1:
                found.append(packet[16:])
            else:
                self.halves[number] = (struct.unpack("<Q", packet[8:16])[0], b"", packet[5] == 3)
        return found

    def messages(self, seconds):
        for text in self.texts(seconds):
            trace("<", text)
            while text:
                message, text = read(text)
                yield message


class Place:
    """The path of a port's socket, by way of its folder: a long one would be no address."""

    def __init__(self, path):
        self.path = path

    def __enter__(self):
        self.folder = os.open(os.path.dirname(self.path), os.O_PATH | os.O_CLOEXEC)
        return f"/proc/self/fd/{self.folder}/{os.path.basename(self.path)}.socket"

    def __exit__(self, *_):
        os.close(self.folder)


def is_ours(connection):
    user = struct.unpack("3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[1]
    return user in (0, os.getuid())


def is_owned(path):
    try:
        file = os.open(path + ".lock", os.O_RDWR | os.O_NOFOLLOW | os.O_CLOEXEC)
    except FileNotFoundError:
        return False
    try:
        return lock(file, fcntl.F_OFD_GETLK, fcntl.F_WRLCK) != fcntl.F_UNLCK
    finally:
        os.close(file)


def send(message, connections):
    """To the port that has the target's name; False when nobody has it, or takes nothing."""
    target, text = message["Target"], write(message)
    kind = 1 if len(text) <= 65536 else 2
    header = struct.pack("<4sBBHQ", b"CVMP", 1, kind, 0, len(text))
    packets = [header + text] if kind == 1 else [
        header, *(text[start:start + 65536] for start in range(0, len(text), 65536))]
    for _ in range(2):  # a connection that was kept may have been closed meanwhile
        kept = connections.pop(target, None)
        try:
            end = kept or connect(target)
            for packet in packets if end else []:
                end.send(packet)
        except OSError:
            continue
        if end:
            connections[target] = end
            trace(">", text)
            return True
    return False


def connect(target):
    path = os.path.join(folder(), file_name(target))
    if not is_owned(path):
        return None
    end = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    end.settimeout(10)
    with Place(path) as place:
        end.connect(place)
    return end if is_ours(end) else None


def write(message):
    """A message is a dictionary of its lines, with the body behind the empty name."""
    body = message.get("", "").encode()
    lines = {"@CV>Version": "2.05", **message, "Timestamp": f" {int(time.time())}",
             "Content-Length": len(body)}
    head = "".join(f"{name}:{value}\n" for name, value in lines.items() if name)
    return head.encode() + b"\n" + body


def read(text):
    """The first message of a text, and the rest."""
    head, _, rest = text.partition(b"\n\n")
    message = dict(line.partition(":")[::2] for line in head.decode().split("\n"))
    length = int(message.get("Content-Length", 0))
    message[""] = rest[:length].decode()
    return message, rest[length:].lstrip(b"\n")


def trace(way, text):
    if "TRACE" in os.environ:
        print(way, text.decode(), sep="\n", file=sys.stderr)


def reply(request, own, lines):
    return {"Target": request["Sender"], "Sender": own,
            **{name: request[name] for name in ("@CV>Life",) if name in request}, **lines}


def serve(own):
    port, thread = Port(own), Port(own + "#thread")
    connections = {}
    print("running as", own, flush=True)
    while True:
        select.select([end for each in (port, thread)
                       for end in (each.listener, *each.connections.values())], [], [])
        for ping in thread.messages(0):
            if "Ping-Number" not in ping:  # else it is an answer
                known = ping.get("ECHO_REQUEST") == "ECHO_REQUEST"
                answer = {"Type": "ping", "Ping-Number": ping["Serial-Number"],
                          "ECHO_REQUEST": "ECHO_RESPONSE" if known else "", "Serial-Number": 1}
                send(reply(ping, own + "#thread", answer), connections)
        for request in port.messages(0):
            number, wanted = request["Serial-Number"], request.get("Response-Request", "")
            kind = request.get("Type", "Tessaly")
            if kind.startswith(REPLIES) or not wanted:
                continue
            user_type = "" if kind == "Tessaly" else kind
            result = {"Type": "Result" + user_type, "Serial-Number": number, "Result": number,
                      "": "peer: " + request[""]}
            for word, lines in (("Received", {"Type": "Received", "Serial-Number": number}),
                                ("Result", result),
                                ("Processed", {"Type": "Processed", "Serial-Number": number})):
                if word in wanted:
                    send(reply(request, own, lines), connections)


def ask(own, question, comes_from, wanted):
    """Prints what answers a question, until the last reply."""
    port = Port(own)
    try:
        if not send(question, {}):
            print("ISNOTRUNNING")
            return 1
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            for answer in port.messages(end - time.monotonic()):
                if answer["Sender"] == comes_from and wanted(answer):
                    return 0
        print("Timeout")
        return 1
    finally:
        port.close()


def main(own, what, target="", text="ECHO_REQUEST"):
    def is_answer(answer):
        if answer.get("Ping-Number") != "7":
            return False
        print(answer["ECHO_REQUEST"])
        return True

    def is_last(answer):
        print(answer["Type"], answer[""])
        return answer["Type"] == "Processed"

    if what == "serve":
        return serve(own)
    if what == "ping":
        question = {"Target": target + "#thread", "Sender": own + "#ping", "Type": "ping",
                    "ECHO_REQUEST": text, "Serial-Number": 7}
        return ask(own + "#ping", question, target + "#thread", is_answer)
    question = {"Target": target, "Sender": own, "Type": os.environ.get("TYPE", "Tessaly"), "": text,
                "Response-Request": "Received Result Error Processed", "Serial-Number": 1}
    return ask(own, question, target, is_last)


if __name__ == "__main__":
    if sys.argv[2:3] not in (["serve"], ["ping"], ["ask"]):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
