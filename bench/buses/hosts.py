"""Many applications of one user at once: the memory of each, who runs, a ping to all of them, and one
that asks all of them.
Usage: hosts.py [HOSTS...], how many of them; 100, 300 and 1000 without."""

from __future__ import annotations

import asyncio
import os
import pathlib
import re
import subprocess
import sys
import time
from collections.abc import Callable

from scene import PROGRAMS, scene

import convey


def kib(pid: int, what: str) -> int:
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    return sum(int(value) for value in re.findall(rf"^{what}:\s+(\d+) kB", text, re.MULTILINE))


def seconds(work: Callable[[], object], rounds: int = 5) -> float:
    times = []
    for _ in range(rounds):
        start = time.monotonic()
        work()
        times.append(time.monotonic() - start)
    return sorted(times)[rounds // 2]


def tool(*arguments: str) -> str:
    return subprocess.run([PROGRAMS / "convey", *arguments], check=True, capture_output=True, text=True).stdout


def ask_all(names: list[str]) -> float:
    async def ask() -> float:
        async with convey.Application("diary-1.0") as app:
            async def one(name: str) -> None:
                assert await app.request(name, "hello", timeout=60) == "echo: hello"

            await asyncio.gather(*map(one, names))  # each target's connection is made
            start = time.monotonic()
            await asyncio.gather(*map(one, names))
            return time.monotonic() - start

    return asyncio.run(ask())


def measure(count: int) -> list[float]:
    names = [f"host{i}-1.0-en_us" for i in range(count)]
    registrations = pathlib.Path(os.environ["HOME"], "hosts.toml")
    registrations.write_text("".join(f'[[application]]\nspecifier = "{name}"\nPath = "/opt/Host.app"\n' for name in names),
                             encoding="utf-8")
    subprocess.run([PROGRAMS / "ovrel-caps", "import", registrations], check=True, stdout=subprocess.DEVNULL)
    start = time.monotonic()
    hosts = [subprocess.Popen([PROGRAMS / "host", name, "--quiet"], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL) for name in names]
    try:
        while len(tool("list", "--running", "--names").split()) < count:
            time.sleep(0.05)
        started = time.monotonic() - start
        time.sleep(2)  # what a beginning brings is over
        own = sum(kib(host.pid, "Private_Dirty") for host in hosts) / count
        running = seconds(lambda: tool("list", "--running"))
        ping = seconds(lambda: tool("ping", "allRunningApps"), 3)
        return [started / count * 1e3, own, running * 1e3, running / count * 1e6, ping * 1e3, ping / count * 1e6,
                ask_all(names) / count * 1e6]
    finally:
        for host in hosts:
            host.terminate()
        for host in hosts:
            host.wait()


def main(*counts: str) -> None:
    columns = [int(count) for count in counts] or [100, 300, 1000]
    results = []
    for count in columns:
        with scene():
            results.append(measure(count))
    rows = [("start until it is listed, each, ms", 2), ("memory of its own, each, KiB", 0),
            ("convey list --running, ms", 1), ("of it each, µs", 0), ("convey ping allRunningApps, ms", 1),
            ("of it each, µs", 0), ("request and result with all at once, each, µs", 0)]
    print("| processes | " + " | ".join(map(str, columns)) + " |")
    print("|---" * (len(columns) + 1) + "|")
    for i, (name, digits) in enumerate(rows):
        print(f"| {name} | " + " | ".join(f"{result[i]:.{digits}f}" for result in results) + " |")


if __name__ == "__main__":
    main(*sys.argv[1:])
