"""Round trips and messages one way between two processes in Python's asyncio: Convey beside
dbus-fast, whose messages pass through a dbus-daemon. The same text, new processes each round.
Usage: round_trips.py [ROUNDS]"""

from __future__ import annotations

import asyncio
import statistics
import subprocess
import sys
import time
from collections.abc import Awaitable, Callable

from scene import scene, serving

TEXT = "what time is it? " * 17  # 289 bytes
WARM_UP, ROUND_TRIPS, AT_ONCE, ONE_WAY = 300, 3000, 3000, 5000
BATCH = 50  # one way until the target is asked how many it has: dbus-fast fails on a full socket
BUS_NAME, PATH, INTERFACE = "org.example.Clock", "/clock", "org.example.Clock"
Ask = Callable[[], Awaitable[object]]


async def serve_convey() -> None:
    import convey

    app = convey.Application("clock-1.0")
    count = 0

    @app.on()
    def answer(message: convey.Message) -> str:
        nonlocal count
        count += 1
        return message.body

    @app.on("count")
    def counted(message: convey.Message) -> str:
        return str(count)

    async with app:
        print("running", flush=True)
        await asyncio.Event().wait()


async def serve_bus() -> None:
    from dbus_fast.aio import MessageBus
    from dbus_fast.service import ServiceInterface, method

    class Clock(ServiceInterface):
        count = 0

        @method()
        def Ask(self, text: "s") -> "s":  # type: ignore[name-defined]  # noqa: F821
            self.count += 1
            return text

        @method()
        def Count(self) -> "s":  # type: ignore[name-defined]  # noqa: F821
            return str(self.count)

    bus = await MessageBus().connect()
    bus.export(PATH, Clock(INTERFACE))
    await bus.request_name(BUS_NAME)
    print("running", flush=True)
    await bus.wait_for_disconnect()


async def ask_convey() -> None:
    import convey

    async with convey.Application("diary-1.0") as app:

        async def ask() -> None:
            assert await app.request("clock-1.0", TEXT) == TEXT

        await measure(ask, lambda: app.post("clock-1.0", TEXT),
                      lambda: app.request("clock-1.0", "how many?", type="count"))


async def ask_bus() -> None:
    from dbus_fast import Message, MessageFlag
    from dbus_fast.aio import MessageBus

    bus = await MessageBus().connect()

    def message(member: str, **more: object) -> Message:
        return Message(destination=BUS_NAME, path=PATH, interface=INTERFACE, member=member, **more)

    async def ask() -> None:
        reply = await bus.call(message("Ask", signature="s", body=[TEXT]))
        assert reply.body == [TEXT]

    async def count() -> str:
        return str((await bus.call(message("Count"))).body[0])

    await measure(ask, lambda: bus.send(message("Ask", signature="s", body=[TEXT],
                                                flags=MessageFlag.NO_REPLY_EXPECTED)), count)


async def measure(ask: Ask, post: Ask, count: Callable[[], Awaitable[str]]) -> None:
    """Prints the microseconds of a round trip, of one of many at once, and of one way."""
    async def timed(what: Awaitable[None], times: int) -> None:
        begin = time.perf_counter()
        await what
        print((time.perf_counter() - begin) / times * 1e6)

    async def in_turn(times: int) -> None:
        for _ in range(times):
            await ask()

    async def at_once() -> None:
        left = iter(range(AT_ONCE))

        async def asker() -> None:
            for _ in left:
                await ask()

        await asyncio.gather(*(asker() for _ in range(100)))

    async def one_way() -> None:
        before = int(await count())
        for sent in range(BATCH, ONE_WAY + 1, BATCH):
            for _ in range(BATCH):
                await post()
            assert int(await count()) == before + sent

    await in_turn(WARM_UP)
    await timed(in_turn(ROUND_TRIPS), ROUND_TRIPS)
    await timed(at_once(), AT_ONCE)
    await timed(one_way(), ONE_WAY)


PEERS = {"convey": (serve_convey, ask_convey), "dbus-fast": (serve_bus, ask_bus)}


def run_once(name: str) -> list[float]:
    here = [sys.executable, __file__, name]
    with serving(*here):
        asked = subprocess.run([*here, "ask"], stdout=subprocess.PIPE, text=True, check=True)
        return [float(line) for line in asked.stdout.split()]


def main(rounds: int) -> None:
    took: dict[str, list[list[float]]] = {name: [] for name in PEERS}
    with scene():
        for _ in range(rounds):
            for name in PEERS:
                took[name].append(run_once(name))
    middles = {name: [statistics.median(column) for column in zip(*rows)]
               for name, rows in took.items()}
    print("| Python, asyncio, 289 bytes | " + " | ".join(f"{name}, us" for name in PEERS)
          + " | dbus-fast / convey |")
    print("|---|" + "---|" * (len(PEERS) + 1))
    for row, what in enumerate(("round trip", "round trip, 100 at once", "one way, handled")):
        figures = [middles[name][row] for name in PEERS]
        print(f"| {what} | " + " | ".join(f"{figure:.0f}" for figure in figures)
              + f" | {figures[1] / figures[0]:.2f} |")


if len(sys.argv) == 3:
    asyncio.run(PEERS[sys.argv[1]][sys.argv[2] == "ask"]())
else:
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 5)
