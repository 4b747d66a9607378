"""clock_convey.py serve | ask TIMES"""
import asyncio
import sys
import time

import convey


async def main() -> None:
    if sys.argv[1] == "serve":
        app = convey.Application("clock-1.0")
        app.on("time")(lambda message: str(int(time.time())))
        async with app:
            print("running", flush=True)
            await asyncio.Event().wait()
    async with convey.Application("diary-1.0") as app:
        for _ in range(int(sys.argv[2])):
            await app.request("clock-1.0", "?", type="time")


asyncio.run(main())
