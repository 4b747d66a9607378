"""The package beside programs in C++, both ways."""

from __future__ import annotations

import asyncio
import contextlib
import ctypes
import gc
import logging
import os
import pathlib
import signal
import subprocess
import sys
import threading
import weakref
from collections.abc import Awaitable, Callable, Coroutine
from typing import Any

import pytest

import convey
from conftest import PROGRAMS, SECONDS, Start, register
from convey import _c
from convey._application import _lanes


def in_loop(body: Callable[[convey.Application], Coroutine[Any, Any, None]]) -> None:
    """Runs a test in a loop, as an open application."""

    async def run() -> None:
        async with convey.Application("diary-1.0") as app:
            await body(app)

    asyncio.run(asyncio.wait_for(run(), SECONDS))


async def eventually(holds: Callable[[], bool], what: str) -> None:
    for _ in range(100 * SECONDS):
        if holds():
            return
        await asyncio.sleep(0.01)
    pytest.fail("waited in vain for " + what)


async def program_asks(target: str, body: str) -> str:
    """How the request of another program ended: in a word, with its code and text."""
    process = await asyncio.create_subprocess_exec(
        PROGRAMS / "clock", "clock-1.0", target, body, stdout=subprocess.PIPE)
    said, _ = await process.communicate()
    return said.decode()


ENDS: list[tuple[str, str, type[convey.ConveyError], int, str]] = [
    # target, body, how it ends, code, text
    ("echo", "fail", convey.Error, 7, "failed as asked"),
    ("absent", "x", convey.NotRunning, 59, "ERROR: LAUNCHING IS SUPPRESSED"),
    ("nosuch-1.0", "x", convey.NotInstalled, 59, "ERROR: LAUNCHING IS SUPPRESSED"),
    ("echo", "", convey.Refused, 59, "ERROR: CAN'T STREAM MESSAGE TO STRING"),
    ("target", "hold", convey.TimedOut, 0, "no answer in time"),
]


def test_each_end_of_a_request_has_its_class(echo: object, target: object) -> None:
    async def body(app: convey.Application) -> None:
        answer = await app.request("echo", "süß\nund 'wild' \udcff", headers={"Page": "12"})
        assert answer == "echo: süß\nund 'wild' \udcff"  # bytes that are no text come back
        assert answer.message.sender == "echo-1.0"
        for name, text, kind, code, said in ENDS:
            with pytest.raises(kind) as caught:
                await app.request(name, text, timeout=1 if text == "hold" else SECONDS)
            assert (caught.value.code, caught.value.text) == (code, said), name
        for bad in ("a\0b", 7):
            with pytest.raises((ValueError, TypeError)):
                await app.request("echo", bad)  # type: ignore[arg-type]
        with pytest.raises(ValueError):
            await app.request("echo", "x", headers={"Page": "1\nTarget: other"})

    in_loop(body)


def test_each_end_is_the_same_without_a_loop(echo: object, target: object) -> None:
    with convey.Application("diary-1.0") as app:
        assert app.request("echo", "hello") == "echo: hello"
        for name, text, kind, code, said in ENDS:
            with pytest.raises(kind) as caught:
                app.request(name, text, timeout=1 if text == "hold" else SECONDS)
            assert (caught.value.code, caught.value.text) == (code, said), name
        assert app.ping("echo") == "ECHO_RESPONSE" and app.resolve("echo") == "echo-1.0"
        assert "echo-1.0" in app.applications() and app.path("echo") == "/opt/apps/App.app"
        assert app.is_running("echo") and not app.is_running("absent")
    with pytest.raises(convey.Cancelled):
        app.request("echo", "after the end")


def test_questions_about_applications(echo: object) -> None:
    async def body(app: convey.Application) -> None:
        assert set(await app.applications()) >= {"echo-1.0", "diary-1.0"}
        assert await app.resolve("echo") == "echo-1.0"
        assert await app.ping("echo") == "ECHO_RESPONSE"
        assert await app.is_running("echo") and not await app.is_running("absent")
        assert "diary-1.0" in await app.diagnostics()
        await app.front("echo")
        questions: list[Callable[[str], Awaitable[object]]] = [
            app.resolve, app.path, app.launch, app.front, app.ping]
        for ask in questions:
            with pytest.raises(convey.NotInstalled):
                await ask("nosuch-1.0")
        with pytest.raises(convey.NotRunning):
            await app.ping("absent")

    in_loop(body)


def test_a_target_is_launched(registry: None) -> None:
    folder = pathlib.Path(os.environ["HOME"]) / "Painter.app" / "Contents" / "MacOS"
    folder.mkdir(parents=True)
    program = folder / "Painter"
    program.write_text(f"#!/bin/sh\necho $$ > {folder}/process\n"
                       f"exec {PROGRAMS}/host painter-1.0 --quiet > {folder}/said\n")
    program.chmod(0o755)
    register("painter-1.0", str(folder.parents[1]))

    async def body(app: convey.Application) -> None:
        try:
            answer = await app.request("painter", "blue", launch="-open p.png", timeout=SECONDS)
            assert answer == "echo: blue"
            assert "-open p.png" in (folder / "said").read_text()
        finally:
            os.kill(int((folder / "process").read_text()), signal.SIGTERM)

    in_loop(body)


def test_a_message_arrives_whole(registry: None) -> None:
    """Also by what reads it in one call, whose buffer may be too short."""
    copies: list[tuple[int, bytes]] = []

    def shorter(message: int, reply: int, data: int) -> None:
        for size in (0, 1, 40, 4096):
            buffer = ctypes.create_string_buffer(b"#" * 4096, 4096)
            copies.append((_c._message_copy(message, buffer, size), buffer.raw))
        convey.Reply(reply).result("read")

    function = _c.MESSAGE_FUNCTION(shorter)

    async def body(app: convey.Application) -> None:
        async with convey.Application("clock-1.0") as clock:
            seen: list[convey.Message] = []

            @clock.on("whole")
            def answer(message: convey.Message) -> str:
                seen.append(message)
                return message.body

            for text in ("x", "ü" * 70_000):  # behind the first buffer's end
                headers = {"Page": "12", "Mark": "a, b"} if text == "x" else {}
                result = await app.request("clock-1.0", text, type="whole", headers=headers)
                got = seen.pop()
                assert result == text and (got.body, got.type, got.sender, got.target) == \
                    (text, "whole", "diary-1.0", "clock-1.0")
                assert got.wants_result and got.timeout == 60 and got.number > 0
                assert {name: got.headers.get(name) for name in headers} == headers
                assert result.message.sender == "clock-1.0"
            assert clock._handle is not None
            _c.application_on(clock._handle, b"short", function, 0, _c.nothing)
            await app.request("clock-1.0", "y", type="short")
            length, whole = copies[-1]
            for size, (said, raw) in zip((0, 1, 40, 4096), copies):
                assert said == length and raw[:size] == whole[:size]
                assert set(raw[min(size, length):]) == {ord("#")}

    in_loop(body)


def test_ten_thousand_requests_in_flight(echo: object) -> None:
    async def body(app: convey.Application) -> None:
        numbers = range(10_000)
        answers = await asyncio.gather(*(app.request("echo", str(n)) for n in numbers))
        assert answers == [f"echo: {n}" for n in numbers]

    in_loop(body)


def test_handlers_answer_programs_in_c(registry: None, caplog: pytest.LogCaptureFixture) -> None:
    kept: list[convey.Reply] = []

    async def body(app: convey.Application) -> None:
        @app.on()
        def handle(message: convey.Message) -> str | None:
            if message.body == "fail":
                raise convey.Error(9, "not today")
            if message.body == "raise":
                raise RuntimeError("a secret")
            if message.body == "wrong":
                return 7  # type: ignore[return-value]
            if message.body == "drop":
                message.defer()
            if message.body == "defer":
                kept.append(message.defer())
                threading.Timer(0, lambda: kept[0].result("from a thread")).start()
            return f"{message.sender} {message.type} {message.body}"

        said = {
            "hello": "result 0 clock-1.0 Tessaly hello\n", "fail": "error 9 not today\n",
            "raise": "error 61 ERROR: HANDLER FAILED\n",
            "wrong": "error 61 ERROR: HANDLER FAILED\n",
            "drop": "error 64 ERROR: NOT ANSWERED\n", "defer": "result 0 from a thread\n",
        }
        for order, answer in said.items():
            assert answer == await program_asks("diary", order), order
        assert "a secret" in caplog.text  # here, and not at the asker
        assert not kept[0].result("again")

    with caplog.at_level(logging.ERROR, "convey"):
        in_loop(body)


def test_an_async_handler_answers_later_and_others_meanwhile(registry: None) -> None:
    async def body(app: convey.Application) -> None:
        gate = asyncio.Event()

        @app.on("query")
        async def handle(message: convey.Message) -> str:
            if message.body == "open":
                gate.set()
                raise convey.Error(8, "opened")
            await gate.wait()
            return "passed"

        first = asyncio.create_task(app.request("diary-1.0", "wait", type="query"))
        with pytest.raises(convey.Error) as caught:
            await app.request("diary-1.0", "open", type="query")
        assert (caught.value.code, caught.value.text) == (8, "opened")
        assert await first == "passed"
        app.off("query")
        with pytest.raises(convey.Error) as caught:
            await app.request("diary-1.0", "x", type="query")
        assert caught.value.code == 66  # nobody handles it

    in_loop(body)


def test_cancelling_the_task_cancels_the_request(target: Any) -> None:
    async def body(app: convey.Application) -> None:
        before = len(_c._kept)
        asking = asyncio.create_task(app.request("target", "hold"))
        assert await asyncio.to_thread(target.stdout.readline) == "got hold\n"
        assert len(_c._kept) == before + 1
        asking.cancel()
        with pytest.raises(asyncio.CancelledError):
            await asking
        # The library has let go of what it was to call.
        await eventually(lambda: len(_c._kept) == before, "what was kept for it to go")

    in_loop(body)


def test_a_process_that_is_killed_ends_what_it_owes(target: Any) -> None:
    async def body(app: convey.Application) -> None:
        asking = asyncio.create_task(app.request("target", "hold", timeout=SECONDS))
        assert await asyncio.to_thread(target.stdout.readline) == "got hold\n"
        target.kill()
        with pytest.raises(convey.Error) as caught:
            await asking
        assert caught.value.code == 62

    in_loop(body)


def test_a_stopped_target_holds_up_neither_the_loop_nor_others(
        echo: Any, target: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    by_thread: list[bytes] = []
    gate = threading.Event()  # none goes before all have been begun
    add = _lanes.add

    def noted(name: bytes, job: Callable[[], None]) -> None:
        by_thread.append(name)

        def gated() -> None:
            gate.wait()
            job()

        add(name, gated)

    monkeypatch.setattr(_lanes, "add", noted)

    async def body(app: convey.Application) -> None:
        target.send_signal(signal.SIGSTOP)
        # One that goes by a thread, one that its port would take at once, and more than that takes.
        filling = ["large" + "x" * 100_000, "small"] + [f"{n}{'x' * 60_000}" for n in range(200)]
        stuck = [asyncio.create_task(app.request("target", text, timeout=SECONDS))
                 for text in filling]
        await asyncio.sleep(0)
        gate.set()
        answers = [await app.request("echo", str(n), timeout=SECONDS) for n in range(20)]
        assert answers == [f"echo: {n}" for n in range(20)]
        assert not all(task.done() for task in stuck)
        assert set(by_thread) == {b"target"}
        target.send_signal(signal.SIGCONT)
        for text in filling:  # in their order, whichever way they went
            assert await asyncio.to_thread(target.stdout.readline) == f"got {text}\n"
        assert await asyncio.gather(*stuck) == ["answer"] * len(filling)
        waited = len(by_thread)
        assert await app.post("target", "posted") and len(by_thread) == waited

    in_loop(body)


def test_what_waits_is_cancelled_when_the_application_ends(target: Any) -> None:
    async def run() -> None:
        app = convey.Application("diary-1.0")
        async with app:
            asking = asyncio.create_task(app.request("target", "hold"))
            assert await asyncio.to_thread(target.stdout.readline) == "got hold\n"

            @app.on("query")
            async def never(message: convey.Message) -> None:
                await asyncio.Event().wait()

            async with convey.Application("clock-1.0") as other:
                owed = asyncio.create_task(other.request("diary-1.0", "x", type="query"))
                await eventually(lambda: bool(app._tasks), "the handler")
                await app.close()
                with pytest.raises(convey.Cancelled):
                    await asking
                with pytest.raises(convey.Error) as caught:
                    await owed
                assert caught.value.code in (62, 64)
        with pytest.raises(convey.Cancelled):
            await app.request("target", "after the end")
        async with app:  # and again
            assert await app.ping("target") == "ECHO_RESPONSE"

    asyncio.run(asyncio.wait_for(run(), SECONDS))


def test_what_is_let_go_of_goes(echo: Any) -> None:
    async def run() -> None:
        app = convey.Application("diary-1.0")
        await app.__aenter__()

        @app.on("query")
        def refers(message: convey.Message) -> str:
            return app.name  # a circle

        await app.request("echo", "hello")
        gone = weakref.ref(app)
        del app, refers
        gc.collect()
        assert gone() is None
        async with convey.Application("diary-1.0") as again:  # the name is free
            assert again.name == "diary-1.0"

    with contextlib.closing(asyncio.new_event_loop()) as loop:
        loop.run_until_complete(asyncio.wait_for(run(), SECONDS))
    gc.collect()
    assert not _c._kept


def test_monitor_tells_the_messages_of_another(echo: Any) -> None:
    async def body(app: convey.Application) -> None:
        events: list[convey.Event] = []

        async def watch() -> None:
            async for event in app.monitor("echo", bodies=True):
                if event.event == "added":  # what was under way already is shown, too
                    events.append(event)

        watching = asyncio.create_task(watch())
        while not events:
            await app.request("echo", "seen\nand\\nread", headers={"type": "no field"})
            await asyncio.sleep(0.05)
        first = events[0]
        assert (first.of, first.sender, first.target) == ("echo-1.0", "diary-1.0", "echo-1.0")
        assert (first.type, first.text, first.size) == ("Tessaly", "seen\nand\\nread", 14)
        assert first.headers["type"] == "no field"
        echo.kill()
        await watching  # ends with the application

    in_loop(body)


WITHOUT_A_LOOP = """
import convey
app = convey.Application("clock-1.0")
@app.on()
def answer(message):
    return "it is noon, " + message.sender
with app as clock:
    print("running", flush=True)
    clock.run()
print("ended", flush=True)
"""


def test_a_program_without_a_loop_answers_until_it_is_asked_to_end(start: Start) -> None:
    clock = start(sys.executable, "-c", WITHOUT_A_LOOP, first="running")
    asked = subprocess.run([PROGRAMS / "host", "diary-1.0", "--ask", "clock", "hm"],
                           capture_output=True, text=True, timeout=SECONDS)
    assert asked.stdout == "result: it is noon, diary-1.0\n"
    clock.terminate()
    said, _ = clock.communicate(timeout=SECONDS)
    assert (said, clock.returncode) == ("ended\n", 0)


def test_a_program_that_forgets_to_close_ends(start: Start) -> None:
    forgetful = ("import asyncio, convey\n"
                 "app = convey.Application('clock-1.0')\n"
                 "asyncio.run(app.__aenter__())\n"
                 "print('running', flush=True)\n")
    process = start(sys.executable, "-c", forgetful, first="running")
    assert process.wait(SECONDS) == 0
