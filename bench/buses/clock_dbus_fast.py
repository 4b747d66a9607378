"""clock_dbus_fast.py serve | ask TIMES"""
import asyncio
import sys
import time

from dbus_fast import Message
from dbus_fast.aio import MessageBus
from dbus_fast.service import ServiceInterface, method

NAME, PATH = "org.example.Clock", "/clock"


class Clock(ServiceInterface):
    @method()
    def time(self, question: "s") -> "s":  # noqa: F821
        return str(int(time.time()))


async def main() -> None:
    bus = await MessageBus().connect()
    if sys.argv[1] == "serve":
        bus.export(PATH, Clock(NAME))
        await bus.request_name(NAME)
        print("running", flush=True)
        await bus.wait_for_disconnect()
    for _ in range(int(sys.argv[2])):
        await bus.call(Message(destination=NAME, path=PATH, interface=NAME, member="time",
                               signature="s", body=["?"]))


asyncio.run(main())
