"""That the judge finds what it is there to find."""

from __future__ import annotations

import pytest
from judge import judge

LIFE = "desk-1.0/12"
ASKED = [f"life {LIFE}", *(f"sent {n}" for n in range(9)), *(f"{n} result {LIFE} {n}" for n in range(6)),
         "6 error 62 ERROR: TARGET HAS ENDED", "7 NotRunning x", "8 TimedOut x", "end"]
HANDLED = [f"{LIFE} {n}" for n in (*range(7), 8)]


def changed(text: list[str], old: str, *new: str) -> list[str]:
    assert old in text
    return [line for had in text for line in (new if had == old else [had])]


def test_what_is_right_is_not_accused() -> None:
    others = [f"else-1.0/1 {n}" for n in (3, 3, 1)]
    faults, kinds = judge(ASKED, [*HANDLED, *others])
    assert not faults
    assert kinds == {"result": 6, "error 62": 1, "NotRunning": 1, "TimedOut": 1}
    assert not judge(ASKED[:-5], HANDLED)[0]  # an asker that was killed


@pytest.mark.parametrize(("asked", "handled", "fault"), [
    (ASKED, changed(HANDLED, f"{LIFE} 3"), "3 has a result, and nobody handled it"),
    (ASKED, changed(HANDLED, f"{LIFE} 3", f"{LIFE} 3", f"{LIFE} 3"), "3 was handled twice"),
    (ASKED, [*HANDLED, f"{LIFE} 0"], "0 was handled twice"),
    (ASKED, [HANDLED[1], HANDLED[0], *HANDLED[2:]], "0 was handled behind 1"),
    (ASKED, [*HANDLED[:-1], f"{LIFE} 7", HANDLED[-1]], "7 was handled, and its asker told: NotRunning x"),
    (ASKED, [*HANDLED, f"{LIFE} 12"], "12 was handled and never sent"),
    (changed(ASKED, "8 TimedOut x"), HANDLED, "8 was lost without a word"),
    (changed(ASKED, "8 TimedOut x", "8 TimedOut x", "8 TimedOut x"), HANDLED,
     "8 ended twice: TimedOut x, TimedOut x"),
    (changed(ASKED, f"2 result {LIFE} 2", f"2 result {LIFE} 3"), HANDLED,
     f"2 has another's result: result {LIFE} 3"),
])
def test_each_fault_is_found(asked: list[str], handled: list[str], fault: str) -> None:
    assert judge(asked, handled)[0] == [fault]
