"""A network that is slow, silent or breaks: stands between a machine and the servers.

Usage: proxy.py LISTEN=TARGET... (each HOST:PORT). Obeys lines on its standard input, and says "ok":
delay SECONDS (each way), cut (nothing passes, nobody is told), mend, break (connections end)."""

from __future__ import annotations

import asyncio
import contextlib
import socket
import struct
import sys
from collections import deque

CHUNK, MOST_CHUNKS = 65536, 256  # what is on its way in one direction


class Network:
    def __init__(self) -> None:
        self.delay = 0.0
        self.passes = asyncio.Event()
        self.passes.set()
        self.writers: set[asyncio.StreamWriter] = set()

    def break_all(self) -> None:
        for writer in self.writers:
            if writer.is_closing():
                continue
            # At once and without what waits, as when a machine on the way starts anew.
            own = writer.get_extra_info("socket")
            own.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            writer.transport.abort()

    async def carry(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        loop = asyncio.get_running_loop()
        under_way: deque[tuple[float, bytes]] = deque()
        changed = asyncio.Event()
        room = asyncio.Semaphore(MOST_CHUNKS)

        async def fill() -> None:
            with contextlib.suppress(OSError):  # else its end comes as any other
                while data := await reader.read(CHUNK):
                    await room.acquire()
                    under_way.append((loop.time() + self.delay, data))
                    changed.set()
            under_way.append((loop.time() + self.delay, b""))
            changed.set()

        filling = asyncio.create_task(fill())
        try:
            while True:
                while not under_way:
                    changed.clear()
                    await changed.wait()
                due, data = under_way.popleft()
                room.release()
                if due > loop.time():
                    await asyncio.sleep(due - loop.time())
                await self.passes.wait()
                if not data:
                    break
                writer.write(data)
                await writer.drain()
        except OSError:
            pass
        finally:
            filling.cancel()
            writer.close()

    async def serve(self, target: str, reader: asyncio.StreamReader,
                    writer: asyncio.StreamWriter) -> None:
        host, _, port = target.rpartition(":")
        await self.passes.wait()
        try:
            far_reader, far_writer = await asyncio.open_connection(host, int(port))
        except OSError:
            writer.close()
            return
        ends = {writer, far_writer}
        self.writers |= ends
        try:
            await asyncio.gather(self.carry(reader, far_writer), self.carry(far_reader, writer),
                                 return_exceptions=True)
        finally:
            self.writers -= ends


async def main(pairs: list[str]) -> None:
    network = Network()
    for pair in pairs:
        listen, _, target = pair.partition("=")
        host, _, port = listen.rpartition(":")
        await asyncio.start_server(lambda r, w, target=target: network.serve(target, r, w),  # type: ignore[misc]
                                   host, int(port), limit=CHUNK)
    print("ready", flush=True)
    orders = asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(
        lambda: asyncio.StreamReaderProtocol(orders), sys.stdin)
    while line := await orders.readline():
        order, *words = line.decode().split()
        if order == "delay":
            network.delay = float(words[0])
        elif order == "cut":
            network.passes.clear()
        elif order == "mend":
            network.passes.set()
        elif order == "break":
            network.break_all()
        else:
            sys.exit(f"proxy: {order}: no such order")
        print("ok", flush=True)


asyncio.run(main(sys.argv[1:]))
