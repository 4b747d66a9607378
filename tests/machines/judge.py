"""Judges what askers and their target wrote down (load.py)."""

from __future__ import annotations

import collections
import pathlib
from collections.abc import Iterable, Sequence

# Outcomes that say that no handler has seen the request.
UNHANDLED = ("NotRunning", "NotInstalled", "Refused", "error 53 ", "error 59 ")


def judge(asked: Sequence[str], handled: Iterable[str]) -> tuple[list[str], collections.Counter[str]]:
    """What is wrong with one asker's journal beside its target's, and how many requests ended how."""
    faults: list[str] = []
    life, ended = asked[0].removeprefix("life "), asked[-1] == "end"
    sent = [int(line.split()[1]) for line in asked if line.startswith("sent ")]
    outcomes: dict[int, str] = {}
    for line in asked[1:]:
        first, _, outcome = line.partition(" ")
        if not first.isdigit():
            continue
        number = int(first)
        if number in outcomes:
            faults.append(f"{number} ended twice: {outcomes[number]}, {outcome}")
        outcomes[number] = outcome
    seen: collections.Counter[int] = collections.Counter()
    latest = -1
    for line in handled:
        of, _, last = line.rpartition(" ")
        if of != life:
            continue
        number = int(last)
        if number not in sent[number:number + 1]:
            faults.append(f"{number} was handled and never sent")
        if seen[number]:
            faults.append(f"{number} was handled twice")
        elif number < latest:
            faults.append(f"{number} was handled behind {latest}")
        seen[number] += 1
        latest = max(latest, number)
    for number in sent:
        outcome = outcomes.get(number, "")
        if not outcome:
            if ended:
                faults.append(f"{number} was lost without a word")
        elif outcome.startswith("result "):
            if not seen[number]:
                faults.append(f"{number} has a result, and nobody handled it")
            if outcome != f"result {life} {number}":
                faults.append(f"{number} has another's result: {outcome}")
        elif outcome.startswith(UNHANDLED) and seen[number]:
            faults.append(f"{number} was handled, and its asker told: {outcome}")
    kinds = collections.Counter(
        " ".join(outcome.split()[:2 if outcome.startswith("error") else 1]) for outcome in outcomes.values())
    return faults, kinds


def lines(path: pathlib.Path) -> list[str]:
    """Whole lines: who was killed may have left a part."""
    return path.read_text(encoding="utf-8").split("\n")[:-1] if path.exists() else []
