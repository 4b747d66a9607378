"""Two machines of a realm: `lumen` runs on one, the other uses it."""

from __future__ import annotations

import pathlib
import sys
from collections.abc import Iterator

import pytest
from world import HERE, PROGRAMS, Machine, Process, World

LUMEN = "lumen-2.5-en_us"
OFFER = '[[offer]]\napp = "lumen-*"\nto = ["desk", "attic"]\nlaunch = true\n'
NO_LAUNCH = OFFER.replace("launch = true", "launch = false")
USE = f'[[use]]\napp = "{LUMEN}"\nat = "workshop"\n'


class Pair:
    """The desk asks, the workshop answers."""

    def __init__(self, world: World) -> None:
        self.world = world
        self.desk, self.workshop = world["desk"], world["workshop"]
        self.workshop.add(LUMEN, self.workshop.home / "Lumen.app")
        program = self.workshop.home / "Lumen.app" / "Contents" / "MacOS" / "Lumen"
        program.parent.mkdir(parents=True)
        program.write_text(f'#!/bin/sh\nexec "{PROGRAMS}/host" {LUMEN} >>"{self.workshop.home}/lumen.log"\n',
                           encoding="utf-8")
        program.chmod(0o755)
        self.desk.add("diary-1.0")
        self.targets: list[Process] = []
        self.askers: list[Process] = []

    def join(self, offer: str = OFFER) -> None:
        self.workshop_link = self.workshop.join(offer)
        self.desk_link = self.desk.join(USE)
        self.desk_link.says("workshop is here")

    def target(self) -> Process:
        """Writes down what it handles."""
        return self.workshop.start(sys.executable, HERE / "load.py", "answer", LUMEN, self.handled,
                                   log="target.log", first=f"running as {LUMEN}")

    def host(self) -> Process:
        """Answers, and says what it handles."""
        return self.workshop.start("host", LUMEN, log="lumen.log", first=f"running as {LUMEN}")

    def asker(self, window: int = 16, pause: float = 0.002, number: int = 1) -> Process:
        """Sends numbered requests until it is asked to end."""
        return self.desk.start(sys.executable, HERE / "load.py", "ask", f"diary_{number}-1.0", LUMEN,
                               self.asked(number), str(window), "60", str(pause),
                               log=f"asker{number}.log", first="asking")

    @property
    def handled(self) -> pathlib.Path:
        return self.workshop.home / "handled"

    def asked(self, number: int = 1) -> pathlib.Path:
        return self.desk.home / f"asked{number}"


def knows(machine: Machine, response: str, *options: str) -> bool:
    return f"{LUMEN}: {response}" in machine.run("convey", "ping", LUMEN, *options, status=None)


@pytest.fixture
def world() -> Iterator[World]:
    with World() as made:
        yield made


@pytest.fixture
def pair(world: World) -> Pair:
    return Pair(world)
