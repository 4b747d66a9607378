"""Programs that talk while the world breaks, and write down what they did, a line each.

load.py answer SPECIFIER JOURNAL              handles requests: "SENT-BY NUMBER" for each
load.py ask SPECIFIER TARGET JOURNAL WINDOW TIMEOUT PAUSE
        sends numbered requests until SIGTERM, WINDOW of them under way: "sent NUMBER", then
        "NUMBER OUTCOME", and "end" behind the last."""

from __future__ import annotations

import asyncio
import os
import signal
import sys

import convey


class Journal:
    """What is written stays, however the process ends."""

    def __init__(self, path: str) -> None:
        self._file = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)

    def write(self, line: str) -> None:
        os.write(self._file, (line.replace("\n", " ") + "\n").encode())


async def answer(specifier: str, path: str) -> None:
    journal = Journal(path)
    async with convey.Application(specifier) as app:
        @app.on()
        def handle(message: convey.Message) -> str:
            journal.write(message.body)
            return message.body

        print(f"running as {app.name}", flush=True)
        await asyncio.Event().wait()


async def ask(specifier: str, target: str, path: str, window: int, timeout: float,
              pause: float) -> None:
    journal, room = Journal(path), asyncio.Semaphore(window)
    enough = asyncio.Event()
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, enough.set)
    life = f"{specifier}/{os.getpid()}"
    async with convey.Application(specifier) as app:
        async def one(number: int) -> None:
            try:
                answer = await app.request(target, f"{life} {number}", timeout=timeout)
                journal.write(f"{number} result {answer}")
            except convey.Error as error:
                journal.write(f"{number} error {error.code} {error.text}")
            except convey.ConveyError as error:
                journal.write(f"{number} {type(error).__name__} {error}")
            finally:
                room.release()

        journal.write(f"life {life}")
        print("asking", flush=True)
        asked = set()
        number = 0
        while not enough.is_set():
            await room.acquire()
            journal.write(f"sent {number}")
            asking = asyncio.create_task(one(number))
            asked.add(asking)
            asking.add_done_callback(asked.discard)
            number += 1
            await asyncio.sleep(pause)
        await asyncio.gather(*asked)
        journal.write("end")


def main(order: str, specifier: str, *words: str) -> None:
    if order == "answer":
        asyncio.run(answer(specifier, *words))
    else:
        target, path, window, timeout, pause = words
        asyncio.run(ask(specifier, target, path, int(window), float(timeout), float(pause)))


main(*sys.argv[1:])
