"""Requests while everything breaks: each acknowledged one is handled once, none is lost without a
word, order is kept. CONVEY_LINK_LONG=1 makes everything longer, and again and again until each of
the four has asked 25,000 times."""

from __future__ import annotations

import os
import pathlib
import re
import signal
import threading
import time
from collections.abc import Callable

from conftest import LUMEN, NO_LAUNCH, USE, Pair
from judge import judge, lines
from world import SERVERS, Process, eventually

LONG = os.environ.get("CONVEY_LINK_LONG") == "1"
CUTS = (1, 10, 60) if LONG else (1,)
STOP = 10 if LONG else 1
REQUESTS = 25_000 if LONG else 0
PATIENCE = 900 if LONG else 120
MANY = 1000 if LONG else 50  # requests from one break to the next


def count(journal: pathlib.Path) -> int:
    return journal.read_bytes().count(b"\n") if journal.exists() else 0


def flows(pair: Pair, after: str) -> None:
    """Waits until requests come through that are sent from now on."""
    had = count(pair.handled)
    eventually(f"requests come through after {after}", lambda: count(pair.handled) > had + MANY, PATIENCE)


def pings(pair: Pair, told: list[str], over: threading.Event) -> None:
    while not over.wait(0.02):
        told.extend(re.findall("running_response='([^']*)'",
                               pair.desk.run("KivraConveyCmd", "check_running", LUMEN, status=None)))


def stopped(*processes: Process) -> None:
    for process in processes:
        process.signal(signal.SIGSTOP)
    time.sleep(STOP)
    for process in processes:
        process.signal(signal.SIGCONT)


# A link that changes servers may have nobody for a moment: a request is told so, and was not handled.
BETWEEN = ("NotRunning",)


def under_load(pair: Pair, breaks: dict[str, Callable[[], None]], may_end: tuple[str, ...]) -> None:
    """Breaks one thing after the other while an asker asks, and judges; `may_end`: what else than
    with a result a request may end with."""
    pair.join(NO_LAUNCH)  # what a request had launched would come before the test's own at times
    pair.targets = [pair.target()]
    pair.askers = [pair.asker()]
    flows(pair, "the start")
    told: list[str] = []
    over = threading.Event()
    asking = threading.Thread(target=lambda: pings(pair, told, over))
    asking.start()
    try:
        rounds = 0
        while rounds == 0 or count(pair.handled) < REQUESTS:
            rounds += 1
            for what, breaking in breaks.items():
                breaking()
                flows(pair, what)
        # One that was asked before may wait for its time; after the last break each is answered.
        before = len(told)
        eventually("pings are answered", lambda: "ECHO_RESPONSE" in told[before:])
    finally:
        over.set()
        asking.join()
    # What runs all the time is never said not to, whatever is between; there may be no answer.
    assert "error 62" in may_end or set(told) <= {"ECHO_RESPONSE", "Timeout"}, told
    asker = pair.askers[-1]
    assert asker.process.poll() is None, asker.said()
    assert asker.end() == 0, asker.said()
    handled = lines(pair.handled)
    for number in range(1, len(pair.askers) + 1):
        faults, kinds = judge(lines(pair.asked(number)), handled)
        print(f"asker {number}, {rounds} rounds: {dict(kinds)}, {len(faults)} faults")
        assert not faults, (len(faults), faults[:20], kinds)
        assert set(kinds) <= {"result", *may_end}, kinds
        assert kinds["result"] >= 50, kinds


def test_nothing_is_lost_when_servers_end(pair: Pair) -> None:
    def end(i: int) -> Callable[[], None]:
        def breaking() -> None:
            pair.world.servers[i].kill()
            flows(pair, f"server {i} ended")
            pair.world.restart_server(i)
        return breaking

    under_load(pair, {**{f"server {i} is back": end(i) for i in SERVERS},
                      **{f"server {i} stood still": lambda i=i: stopped(pair.world.servers[i])  # type: ignore[misc]
                         for i in SERVERS}}, BETWEEN)


def test_nothing_is_lost_when_the_network_breaks(pair: Pair) -> None:
    def cut(seconds: int) -> None:
        pair.desk.cut()
        time.sleep(seconds)
        pair.desk.mend()

    def slow() -> None:
        pair.desk.slow(0.05)
        flows(pair, "it has become slow")
        pair.desk.break_connections()
        flows(pair, "slow connections broke")
        pair.desk.slow(0)

    under_load(pair, {"the desk's connections broke": pair.desk.break_connections,
                      "the workshop's connections broke": pair.workshop.break_connections, "a slow network": slow,
                      **{f"{seconds} s of nothing": lambda seconds=seconds: cut(seconds)  # type: ignore[misc]
                         for seconds in CUTS}}, (*BETWEEN, "TimedOut"))


def test_nothing_is_lost_when_parts_stand_still(pair: Pair) -> None:
    under_load(pair, {"the asker": lambda: stopped(pair.askers[0]), "the target": lambda: stopped(pair.targets[0]),
                      "the desk's link": lambda: stopped(pair.desk_link),
                      "the workshop's link": lambda: stopped(pair.workshop_link)}, BETWEEN)


def test_each_request_ends_when_parts_die(pair: Pair) -> None:
    def target() -> None:
        pair.targets[-1].kill()
        pair.targets.append(pair.target())

    def desk() -> None:
        pair.desk_link.kill()
        pair.desk_link = pair.desk.join(USE)

    def workshop() -> None:
        pair.workshop_link.kill()
        pair.workshop_link = pair.workshop.join(NO_LAUNCH)

    def asker() -> None:
        pair.askers[-1].kill()
        pair.askers.append(pair.asker(number=len(pair.askers) + 1))

    under_load(pair, {"the target died": target, "the workshop's link died": workshop,
                      "the desk's link died": desk, "the asker died": asker},
               ("error 62", "error 59", "NotRunning", "NotInstalled", "Refused", "TimedOut"))
