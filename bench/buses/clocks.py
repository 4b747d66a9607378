"""The same small application by each interface, to which one asks the time: how long its source is
(both sides, without blank lines and comments), and what a round trip takes.
Usage: clocks.py [ROUNDS]"""

from __future__ import annotations

import pathlib
import statistics
import subprocess
import sys
import time

from scene import PROGRAMS, scene, serving

FEW, MANY = 300, 3300  # round trips of two processes: the difference has no start in it
CLOCKS = {
    "clock_convey.cpp": "Convey, C++", "clock_c.c": "Convey, C",
    "clock_convey.py": "Convey, Python (asyncio)",
    "clock_sdbus.cpp": "sdbus-c++", "clock_dbus_fast.py": "dbus-fast, Python (asyncio)",
    "clock_dbus_python.py": "dbus-python",
}
FOLDER = pathlib.Path(__file__).parent


def lines(source: str) -> int:
    rows = [row.strip() for row in (FOLDER / source).read_text(encoding="utf-8").splitlines()]
    return sum(1 for row in rows if row and not row.startswith(("//", "/*", "#  ", '"""')))


def microseconds(source: str) -> float:
    command = [sys.executable, FOLDER / source] if source.endswith(".py") else \
        [PROGRAMS / pathlib.Path(source).stem]
    with serving(*command):
        took = []
        for times in (FEW, MANY):
            begin = time.perf_counter()
            subprocess.run([*command, "ask", str(times)], check=True)
            took.append(time.perf_counter() - begin)
    return (took[1] - took[0]) / (MANY - FEW) * 1e6


def main(rounds: int) -> None:
    took: dict[str, list[float]] = {source: [] for source in CLOCKS}
    with scene():
        for _ in range(rounds):
            for source, times in took.items():
                times.append(microseconds(source))
    best = statistics.median(took["clock_convey.cpp"])
    print("| asks the time | lines | round trip, us | Convey in C++ = 1 |")
    print("|---|---|---|---|")
    for source, name in CLOCKS.items():
        middle = statistics.median(took[source])
        print(f"| {name} | {lines(source)} | {middle:.0f} | {middle / best:.2f} |")


main(int(sys.argv[1]) if len(sys.argv) > 1 else 5)
