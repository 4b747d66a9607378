"""What becomes of requests when their target, links and servers die and come back. In every build:
nothing here is in Python itself."""

from __future__ import annotations

import json
import re
import signal
from typing import Any

from conftest import LUMEN, NO_LAUNCH, OFFER, USE, Pair, knows
from world import Machine, Process, eventually


def status(machine: Machine) -> dict[str, Any]:
    said: dict[str, Any] = json.loads(machine.run("convey-link", "status", "--json"))
    return said


def ask(pair: Pair, body: str) -> Process:
    return pair.desk.start("convey", "send", LUMEN, "--body", body, "--wait", "50", log=f"{body}.log", first="sent")


def answers(pair: Pair) -> None:
    eventually("it answers", lambda: knows(pair.desk, "ECHO_RESPONSE"))


def test_askers_are_told_of_each_end_that_comes_in_between(pair: Pair) -> None:
    pair.join(NO_LAUNCH)
    target = pair.host()

    def asked(body: str) -> Process:
        """A request that lies with the target, which stands still."""
        answers(pair)
        target.signal(signal.SIGSTOP)
        asker = ask(pair, body)
        eventually("it is over there", lambda: bool(status(pair.workshop)["requests_here"] == 1))
        return asker

    def is_told_of_an_end(asker: Process) -> None:
        assert asker.wait() == 1
        assert asker.said() == "sent\nerror: ERROR: TARGET HAS ENDED\n"

    asker = asked("the target dies")
    target.kill()
    is_told_of_an_end(asker)
    target = pair.host()

    asker = asked("the link there dies")
    pair.workshop_link.kill()
    pair.workshop_link = pair.workshop.join(NO_LAUNCH)
    is_told_of_an_end(asker)
    target.signal(signal.SIGCONT)

    asker = asked("the servers die")
    pair.world.kill_servers()
    target.signal(signal.SIGCONT)
    assert knows(pair.desk, "Timeout", "--timeout", "2")
    pair.world.restart_servers()
    assert asker.wait() == 0
    assert asker.said() == "sent\nreceived\nresult: echo: the servers die\nprocessed\n"

    asker = asked("the link here dies")
    pair.desk_link.kill()
    is_told_of_an_end(asker)
    assert knows(pair.desk, "ISNOTRUNNING")
    pair.desk_link = pair.desk.join(USE)
    target.signal(signal.SIGCONT)
    answers(pair)
    assert ask(pair, "again").wait() == 0
    assert pair.desk_link.end() == 0
    assert pair.workshop_link.end() == 0


def test_requests_wait_on_the_disks_of_the_servers(pair: Pair) -> None:
    """With the example's permissions: who may not make streams has its requests kept in one, which
    outlives its link and the servers."""
    desk, keeper = pair.desk, pair.world["attic"]
    keeper.keys("keeper@studio")
    store = ("convey-link", "store", keeper.configure(name='"keeper"'), "desk", "workshop")
    eventually("the servers make a stream", lambda: "wait in" in keeper.run(*store, status=None))
    link = desk.join(USE + "durable = true\n")
    bodies: list[str] = []

    def send(count: int) -> None:
        for _ in range(count):
            bodies.append(str(len(bodies)))
            desk.run("convey", "send", LUMEN, "--wait", "0", "--body", bodies[-1])

    def keeps(number: int) -> None:
        eventually(f"the link has had {number} kept", lambda: bool(status(desk).get("requests_kept") == number))

    send(10)
    keeps(10)
    assert "(drops digests)" not in desk.run("convey", "ports")
    pair.world.kill_servers()
    send(1)  # lies with the link until there is a disk
    pair.world.restart_servers()
    keeps(11)
    link.kill()
    desk.join(USE + "durable = true\n")
    asker = ask(pair, "asked")  # this one is told what became of its request
    bodies.append("asked")
    keeps(1)
    pair.world.servers[1].kill()
    lumen = pair.host()
    pair.workshop.join(OFFER)
    assert asker.wait() == 0, asker.said()
    assert "result: echo: asked" in asker.said()
    assert re.findall(r": (\w+)\n", lumen.said()) == bodies
