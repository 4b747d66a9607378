"""A client of the servers that keeps no rule of a link's: says what stands on its standard input, and
prints what comes.

Usage: bare.py HOST:PORT FOLDER NAME, with ca.pem, NAME.pem and NAME.key in FOLDER. Lines on standard
input, in which \\\\r\\\\n and so on are escapes, go out as they are; "wait SECONDS [MESSAGES]" waits so long,
or until so many have come."""

from __future__ import annotations

import select
import socket
import ssl
import sys
import time


def main(door: str, folder: str, name: str) -> None:
    host, _, port = door.rpartition(":")
    bare = socket.create_connection((host, int(port)), 10)
    greeting = b""
    while not greeting.endswith(b"\r\n"):  # and not a byte more: what follows is encrypted
        greeting += bare.recv(1)
    context = ssl.create_default_context(cafile=f"{folder}/ca.pem")
    context.load_cert_chain(f"{folder}/{name}.pem", f"{folder}/{name}.key")
    connection = context.wrap_socket(bare, server_hostname=host)
    connection.setblocking(False)

    def listen(seconds: float, messages: float = float("inf")) -> bool:
        """Prints what comes in that time; false: the connection has ended."""
        end = time.monotonic() + seconds
        all_heard = b""
        while all_heard.count(b"MSG convey.") < messages and (left := end - time.monotonic()) > 0:
            if not connection.pending():
                select.select([connection], [], [], left)
            try:
                heard = connection.recv(65536)
            except ssl.SSLWantReadError:
                continue
            except OSError as error:
                print(error)
                return False
            if not heard:
                return False
            all_heard += heard
            sys.stdout.write(heard.decode("latin-1").replace("\r\n", "\n"))
        return True

    def say(what: bytes) -> bool:
        while what:
            try:
                what = what[connection.send(what):]
            except ssl.SSLWantWriteError:
                select.select([], [connection], [], 1)
            except OSError as error:
                print(error)
                return False
        return True

    goes_on = say(b'CONNECT {"verbose":false,"pedantic":false,"headers":true,"no_responders":true,'
                  b'"lang":"bare","version":"1","protocol":1}\r\nPING\r\n')
    for line in sys.stdin:
        goes_on = goes_on and (listen(*map(float, line.split()[1:])) if line.startswith("wait ") else
                               say(line.rstrip("\n").encode("latin-1").decode("unicode_escape").encode("latin-1")))
    if goes_on and say(b"PING\r\n"):
        listen(0.3)


main(*sys.argv[1:])
