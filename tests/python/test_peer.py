"""A peer that has nothing of the layer beside programs that have it, and the page that it follows."""

from __future__ import annotations

import os
import pathlib
import re
import subprocess
import sys

import pytest
from conftest import PROGRAMS, SECONDS, Start, register

ROOT = pathlib.Path(__file__).parents[2]
PEER = ROOT / "examples" / "peer" / "peer.py"


def said(*command: str | pathlib.Path, **environment: str) -> tuple[str, str]:
    """What a program prints, and its trace."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=SECONDS, check=False,
                          env={**os.environ, **environment})
    return done.stdout, done.stderr


def masked(text: str) -> str:
    """Without what differs each time."""
    text = re.sub(r"(?m)^@CV>(MD5|Life):.*$", r"@CV>\1:", text)
    return re.sub(r"\d{3,}", "0", re.sub(r"(?m)^(Ping|Serial)-Number:.*$", r"\1-Number:", text))


def recorded() -> list[str]:
    page = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")
    return re.findall(r"^```\n(.*?)^```$", page.partition("## Taking part")[2], re.M | re.S)


@pytest.mark.parametrize("kinds", ["all", "old"])
def test_asks_and_pings_the_layer(echo: object, start: Start, monkeypatch: pytest.MonkeyPatch,
                                  kinds: str) -> None:
    if kinds == "old":
        monkeypatch.setenv("PLAIN", "1")
    start(PROGRAMS / "host", "clock-1.0", "--quiet", first="running as clock-1.0")
    asks: list[str | pathlib.Path] = [sys.executable, PEER, "peer-1.0"]
    assert said(*asks, "ping", "clock-1.0")[0] == "ECHO_RESPONSE\n"
    for key in "MOOD=fair", "MOOD":
        assert said(*asks, "ping", "clock-1.0", key)[0] == "fair\n"
    assert said(*asks, "ping", "absent-1.0")[0] == "ISNOTRUNNING\n"
    large = "many " * 20000  # goes in several packets, both ways
    result, trace = said(*asks, "ask", "echo-1.0", large, TRACE="1")
    assert result == f"Received \nResult echo: {large}\nProcessed \n"
    assert ("< sealed" in trace) == (kinds == "all")
    result, trace = said(*asks, "ask", "clock-1.0", "hello", TYPE="query", TRACE="1")
    assert result == "Received \nResultquery echo: hello\nProcessed \n"
    error, error_trace = said(*asks, "ask", "clock-1.0", "fail", TYPE="query", TRACE="1")
    assert error == "Received \nError failed as asked\nProcessed \n"
    for text in recorded()[2:]:
        assert masked(text).strip() in masked(trace + error_trace), text


@pytest.mark.parametrize("kinds", ["all", "old"])
def test_answers_the_layer(registry: None, start: Start, tmp_path: pathlib.Path, kinds: str) -> None:
    register("peer-1.0")
    trace = tmp_path / "trace"
    # The shell gives its place to the interpreter, whose texts go into the file.
    start("sh", "-c", f'{"PLAIN=1" if kinds == "old" else ""} TRACE=1 exec "$0" "$@" 2>"{trace}"', sys.executable, PEER, "peer-1.0", "serve",
          first="running as peer-1.0")
    convey = PROGRAMS / "convey"
    assert said(convey, "ping", "peer")[0].startswith("peer-1.0: ECHO_RESPONSE time=")
    assert said(convey, "ping", "peer", "--key", "MOOD")[0].startswith("peer-1.0: (empty) time=")
    for kind in "Tessaly", "query":
        replies, _ = said(convey, "send", "peer", "--body", "hello", "--type", kind)
        assert replies.split("\n")[1:] == ["received", "result: peer: hello", "processed", ""]
    large = "many " * 20000
    assert said(PROGRAMS / "host", "diary-1.0", "--ask", "peer", large)[0] == f"result: peer: {large}\n"
    written = trace.read_text(encoding="utf-8")
    assert (large in written) and ("< sealed" in written) == (kinds == "all")
    for text in recorded()[:2]:
        assert masked(text).strip() in masked(written), text
