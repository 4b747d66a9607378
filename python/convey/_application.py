"""An application of this process: what answers and asks, in an asyncio loop or without one."""

from __future__ import annotations

import asyncio
import contextlib
import functools
import inspect
import logging
import math
import os
import signal
import threading
import time
import weakref
from collections.abc import AsyncGenerator, Awaitable, Callable, Mapping
from types import TracebackType
from typing import Any, TypeVar, Union

from . import _c
from ._lanes import Lanes
from ._monitor import Event, Watch
from ._types import (CODE_HANDLER_FAILED, CODE_NOT_ANSWERED, PLAIN, Answer, Cancelled, ConveyError,
                     Error, Message, NotInstalled, NotRunning, Refused, Reply, TimedOut, decoded,
                     encoded, outcome_of)

Result = Union[str, bytes, None]
Handler = Callable[[Message], Union[Result, Awaitable[Result]]]
R = TypeVar("R")
H = TypeVar("H", bound=Handler)
Loop = asyncio.AbstractEventLoop

_log = logging.getLogger("convey")
_lanes = Lanes()
_life = threading.RLock()  # applications begin and end one at a time
_ending = threading.Lock()  # of requests that a thread is still sending
_watching: weakref.WeakKeyDictionary[Loop, int] = weakref.WeakKeyDictionary()
_PUMP_MILLISECONDS = 100  # how soon Ctrl-C is seen while a request waits without a loop


@functools.lru_cache(64)
def _target(name: str) -> bytes:
    return encoded(name, "a target")


def _begin(specifier: bytes) -> int:
    with _life:
        handle: int | None = _c.application_new(specifier)
        if handle is None:
            raise ValueError(f"{decoded(specifier)!r} is no specifier")
        if not _c.application_is_reachable(handle):
            _c.application_free(handle)
            raise ConveyError(f"no port for {decoded(specifier)}")
        return handle


def _end(handle: int) -> None:
    with _life:
        _c.application_free(handle)


def _watch(loop: Loop) -> None:
    loop.add_reader(_c.poll_descriptor(), _c.pump)  # what is left keeps it readable
    _watching[loop] = _watching.get(loop, 0) + 1


def _unwatch(loop: Loop) -> None:
    _watching[loop] -= 1
    if _watching[loop] == 0:
        del _watching[loop]
        if not loop.is_closed():
            loop.remove_reader(_c.poll_descriptor())


class _Asked:
    """A request from its sending to its outcome. Its handle of the library's, and the number
    under which that knows it, end once: with `end`, or, when that came during the sending, behind
    that."""

    __slots__ = ("_ended", "_number", "_pending")

    def __init__(self) -> None:
        self._number = 0
        self._pending: int | None = None
        self._ended = False

    def tell(self, outcome: Answer | ConveyError) -> None:
        """Called once, by any thread; not behind `end`."""
        raise NotImplementedError

    def try_send(self, request: int) -> bool:
        """False, and the request is still the caller's, when that would have to wait. For the
        thread that ends it."""
        handle, self._number = _c.c_void_p(), _c.keep(self)
        if _c.request_try_send(request, _outcome_function, self._number, _c.nothing,
                               _c.byref(handle)):
            self._pending = handle.value
            return True
        _c.release(self._number)
        return False

    def send(self, request: int) -> None:
        if self._ended:
            _c.request_free(request)
            return
        self._number = _c.keep(self)
        pending = _c.request_send(request, _outcome_function, self._number, _c.nothing)
        with _ending:
            if not self._ended and pending is not None:
                self._pending = pending
                return
        self._cancel(pending)

    def end(self) -> None:
        with _ending:
            self._ended = True
            pending, self._pending = self._pending, None
        if pending is not None:
            self._cancel(pending)

    def _cancel(self, pending: int | None) -> None:
        _c.pending_cancel(pending)
        _c.release(self._number)  # it will not be asked for any more


class _Noted(_Asked):
    """One that a thread waits for."""

    __slots__ = ("outcome",)

    def __init__(self) -> None:
        super().__init__()
        self.outcome: Answer | ConveyError | None = None

    def tell(self, outcome: Answer | ConveyError) -> None:
        self.outcome = outcome


class _Awaited(_Asked):
    """One that a task awaits."""

    __slots__ = ("_application", "_future")

    def __init__(self, application: Application,
                 future: asyncio.Future[Answer | ConveyError]) -> None:
        super().__init__()
        self._application = application
        self._future = future

    def tell(self, outcome: Answer | ConveyError) -> None:
        if threading.get_ident() == self._application._thread:
            self.settle(outcome)
        else:
            self._application._on_loop(self.settle, outcome)

    def settle(self, outcome: Answer | ConveyError) -> None:
        if not self._future.done():
            self._future.set_result(outcome)


def _on_outcome(outcome: int | None, number: int) -> None:
    asked: _Asked | None = _c.kept(number)
    if asked is not None:
        asked.tell(outcome_of(outcome))


def _on_message(message: int, handle: int, number: int) -> None:
    reply = Reply(handle)
    kept = _c.kept(number)
    application: _Base | None = None if kept is None else kept()
    if application is not None:  # else the reply ends, and its asker is told
        application._take(Message._of(_c.message_texts(message)), reply)


_outcome_function = _c.OUTCOME_FUNCTION(_on_outcome)
_message_function = _c.MESSAGE_FUNCTION(_on_message)


def _failed(reply: Reply, message: Message, error: BaseException) -> None:
    """What a handler raises, answers."""
    if isinstance(error, Error):
        reply.error(error.code or CODE_NOT_ANSWERED, error.text)
        return
    # What went wrong is this process's affair: the asker is told that it did.
    _log.error("the handler of %r from %s failed", message.type, message.sender, exc_info=error)
    reply.error(CODE_HANDLER_FAILED, "ERROR: HANDLER FAILED")


class _Base:
    """What an application is with and without a loop: a name, and handlers."""

    def __init__(self, specifier: str) -> None:
        self._specifier = encoded(specifier, "a specifier")
        self._handlers: dict[str, Handler] = {}
        self._handle: int | None = None
        self._finalizer: Any = None  # a weakref.finalize, which only newer checkers know as generic

    @property
    def name(self) -> str:
        """The name under which other processes reach it."""
        return decoded(_c.application_name(self._open()))

    def on(self, type: str = PLAIN) -> Callable[[H], H]:
        """Decorates the handler of a type of messages, in place of the one before; that of
        PLAIN gets those for whose type there is none, too, and "" what is left then. It returns
        the result, or raises: Error to answer with its code and text, anything else is logged
        here and answers with code 61."""

        encoded(type, "a type")

        def register(handler: H) -> H:
            self._handlers[type] = handler
            if self._handle is not None:
                self._register(type)
            return handler

        return register

    def off(self, type: str = PLAIN) -> None:
        """Takes the handler of a type out; KeyError without one."""
        del self._handlers[type]
        if self._handle is not None:
            _c.application_off(self._handle, encoded(type, "a type"))

    def _open(self) -> int:
        if self._handle is None:
            raise Cancelled(f"{decoded(self._specifier)} is not open")
        return self._handle

    def _opened(self, handle: int) -> None:
        self._handle = handle
        # One that nobody closes is closed when it goes, or at the end of the interpreter.
        self._finalizer = weakref.finalize(self, _end, handle)
        for type in self._handlers:
            self._register(type)

    def _register(self, type: str) -> None:
        if not _c.application_on(self._open(), encoded(type, "a type"), _message_function,
                                 _c.keep(weakref.ref(self)), _c.forget):
            raise MemoryError

    def _close(self) -> None:
        finalizer, self._finalizer, self._handle = self._finalizer, None, None
        if finalizer is not None:
            finalizer()

    def _take(self, message: Message, reply: Reply) -> None:
        raise NotImplementedError

    def _call(self, message: Message, reply: Reply) -> Awaitable[Result] | None:
        """Calls the handler, which answers; what it leaves to be awaited is returned."""
        handler = self._handlers.get(message.type) or self._handlers.get(PLAIN) \
            or self._handlers.get("")
        if handler is None:  # taken out while this was under way
            return None
        message._reply = reply
        try:
            result: Any = handler(message)
            # A text is told from what is to be awaited at a tenth of what that question costs.
            if type(result) is not str and inspect.isawaitable(result):
                return result
            if message._reply is not None:
                reply.result("" if result is None else result)
        except Exception as error:
            _failed(reply, message, error)
        finally:
            message._reply = None
        return None

    def _request(self, target: bytes, body: str | bytes, type: str,
                 headers: Mapping[str, str] | None, launch: bool | str, timeout: float | None) -> int:
        raw = encoded(body, "a body", line=False)
        request: int | None = _c.request_new(self._open(), target, raw, len(raw))
        if request is None:
            raise ValueError("the body is too long, or there is no memory")
        try:
            done = type == PLAIN or _c.request_set_type(request, encoded(type, "a type"))
            for name, value in headers.items() if headers else ():
                done = done and _c.request_set_header(
                    request, encoded(name, "the name of a header"),
                    encoded(value, f"the header {name!r}"))
            if launch is not False:
                done = done and _c.request_set_launch(
                    request, encoded("" if launch is True else launch, "the parameters"))
            if timeout is not None:
                done = done and _c.request_set_timeout(request, min(_ceil(timeout) * 1000, 2**31))
            if not done:
                raise MemoryError
        except BaseException:
            _c.request_free(request)
            raise
        return request


def _ceil(seconds: float) -> int:
    """The layer counts whole seconds."""
    if not seconds > 0:
        raise ValueError("a time-out is more than 0 seconds")
    return math.ceil(min(seconds, 2**20))


def _known(target: bytes) -> None:
    if not _c.is_installed(target):
        raise NotInstalled(f"{decoded(target)} is not installed")


def _applications() -> list[str]:
    return [decoded(text) for text in _c.applications()]


def _resolve(target: bytes) -> str:
    _known(target)
    return decoded(_c.resolve(target))


def _path(target: bytes) -> str:
    _known(target)
    return decoded(_c.path(target))


def _ping(target: bytes, key: bytes | None, seconds: int) -> str:
    answer = decoded(_c.ping(target, key, seconds))
    ends: dict[str, type[ConveyError]] = {
        "Timeout": TimedOut, "ISNOTRUNNING": NotRunning, "ISNOTINSTALLED": NotInstalled,
        "INVALIDSPEC": Refused, "UNDEFINED": Refused, "NOINTERAPPSTREAM": Refused,
        "MSGTOSTRINGERROR": Refused,
    }
    if answer in ends:
        raise ends[answer](f"{decoded(target)}: {answer}")
    return answer


def _launch(target: bytes, parameters: bytes, behind: bool) -> None:
    _known(target)
    if not _c.launch(target, parameters, 1 if behind else 0):
        raise NotRunning(f"{decoded(target)} could not be launched")


def _front(target: bytes) -> None:
    if not _c.front(target):
        raise NotInstalled(f"{decoded(target)} is not installed")


class BlockingApplication(_Base):
    """An application without a loop: each operation waits, and messages are handled while a
    request waits and in `run` and `pump`, on that thread."""

    def request(self, target: str, body: str | bytes, *, type: str = PLAIN,
                headers: Mapping[str, str] | None = None, launch: bool | str = False,
                timeout: float | None = None) -> Answer:
        """As Application.request."""
        asked = _Noted()
        end = None if timeout is None else time.monotonic() + timeout
        asked.send(self._request(_target(target), body, type, headers, launch, timeout))
        try:
            while asked.outcome is None:
                left = _PUMP_MILLISECONDS if end is None else \
                    min(_PUMP_MILLISECONDS, math.ceil((end - time.monotonic()) * 1000))
                if left <= 0:
                    raise TimedOut("no answer in time")
                _c.pump_or_wait(left)
        finally:
            asked.end()
        if isinstance(asked.outcome, ConveyError):
            raise asked.outcome
        return asked.outcome

    def post(self, target: str, body: str | bytes, *, type: str = PLAIN,
             headers: Mapping[str, str] | None = None) -> bool:
        """As Application.post."""
        return bool(_c.request_post(self._request(_target(target), body, type, headers, False,
                                                  None)))

    def run(self) -> None:
        """Handles messages until `quit`, or SIGTERM; SIGINT is a KeyboardInterrupt. For the
        process's main thread."""
        if _c.run() == signal.SIGINT:
            raise KeyboardInterrupt

    def quit(self) -> None:
        """Ends `run`, or its next call. Any thread."""
        _c.quit()

    def pump(self, timeout: float = 0) -> bool:
        """Handles what there is, or what comes within so many seconds; True when it did. For a
        loop of another kind: call it when `fileno` is readable."""
        return bool(_c.pump_or_wait(math.ceil(timeout * 1000)) if timeout > 0 else _c.pump())

    def fileno(self) -> int:
        """The descriptor to watch for reading, one for the process."""
        return int(_c.poll_descriptor())

    def applications(self) -> list[str]:
        self._open()
        return _applications()

    def resolve(self, specifier: str) -> str:
        self._open()
        return _resolve(encoded(specifier, "a specifier"))

    def path(self, specifier: str) -> str:
        self._open()
        return _path(encoded(specifier, "a specifier"))

    def is_running(self, specifier: str) -> bool:
        self._open()
        return bool(_c.is_running(encoded(specifier, "a specifier")))

    def ping(self, target: str, key: str | None = None, *, timeout: float = 5) -> str:
        self._open()
        return _ping(encoded(target, "a target"), None if key is None else encoded(key, "a key"),
                     _ceil(timeout))

    def launch(self, target: str, parameters: str = "", *, behind: bool = False) -> None:
        self._open()
        _launch(encoded(target, "a target"), encoded(parameters, "the parameters"), behind)

    def front(self, target: str) -> None:
        self._open()
        _front(encoded(target, "a target"))

    def diagnostics(self) -> str:
        self._open()
        return decoded(_c.diagnostics())

    def close(self) -> None:
        """Ends it: replies that it owes become errors."""
        self._close()

    def _take(self, message: Message, reply: Reply) -> None:
        left = self._call(message, reply)
        if left is not None:
            if inspect.iscoroutine(left):
                left.close()
            _failed(reply, message, TypeError("a handler that is awaited needs `async with`"))


class Application(_Base):
    """An application, by a specifier such as "diary-1.0". `async with` joins it to the running
    loop, which then handles its messages; `with` gives a BlockingApplication, for programs
    without a loop. It belongs to the thread of that loop; handlers run there, too."""

    def __init__(self, specifier: str) -> None:
        super().__init__(specifier)
        self._loop: Loop | None = None
        self._thread = 0
        self._tasks: set[asyncio.Task[None]] = set()
        self._blocking: BlockingApplication | None = None

    def __enter__(self) -> BlockingApplication:
        blocking = BlockingApplication(decoded(self._specifier))
        blocking._handlers = self._handlers
        blocking._opened(_begin(self._specifier))
        self._blocking = blocking
        return blocking

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        blocking, self._blocking = self._blocking, None
        if blocking is not None:
            blocking.close()

    async def __aenter__(self) -> Application:
        if self._handle is not None:
            raise RuntimeError("it is open already")
        loop = asyncio.get_running_loop()
        # Reads the registry and opens ports.
        beginning = loop.run_in_executor(None, _begin, self._specifier)
        try:
            handle = await asyncio.shield(beginning)
        except asyncio.CancelledError:
            beginning.add_done_callback(
                lambda done: None if done.exception() else _end(done.result()))
            raise
        self._loop, self._thread = loop, threading.get_ident()
        _watch(loop)
        self._opened(handle)
        # Else a loop that ends without us would keep the descriptor.
        self._unwatch = weakref.finalize(self, _unwatch, loop)
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        trace: TracebackType | None) -> None:
        await self.close()

    async def close(self) -> None:
        """Ends it: requests that wait raise Cancelled, handlers that are awaited are cancelled,
        replies that it owes become errors."""
        finalizer, self._finalizer, self._handle = self._finalizer, None, None
        if finalizer is None:
            return
        tasks = self._tasks - {asyncio.current_task()}
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        self._unwatch()
        await asyncio.shield(asyncio.get_running_loop().run_in_executor(None, finalizer))

    async def request(self, target: str, body: str | bytes, *, type: str = PLAIN,
                      headers: Mapping[str, str] | None = None, launch: bool | str = False,
                      timeout: float | None = None) -> Answer:
        """Asks, and gives the result, or raises how it ended. `launch`: True, or with which
        parameters, launches a target that does not run. `timeout` in seconds; 60 without one.
        Cancelling the task cancels the request."""
        loop = self._running()
        future: asyncio.Future[Answer | ConveyError] = loop.create_future()
        name = _target(target)
        request = self._request(name, body, type, headers, launch, timeout)
        asked = _Awaited(self, future)
        timer = None if timeout is None else \
            loop.call_later(timeout, asked.settle, TimedOut("no answer in time"))
        if not (_lanes.is_free(name) and asked.try_send(request)):
            _lanes.add(name, lambda: asked.send(request))
        try:
            outcome = await future
        finally:
            asked.end()
            if timer is not None:
                timer.cancel()
        if isinstance(outcome, ConveyError):
            raise outcome
        return outcome

    async def post(self, target: str, body: str | bytes, *, type: str = PLAIN,
                   headers: Mapping[str, str] | None = None) -> bool:
        """Sends without asking for an answer; True when it was handed over."""
        loop = self._running()
        name = _target(target)
        request = self._request(name, body, type, headers, False, None)
        if _lanes.is_free(name) and _c.request_try_post(request):
            return True
        future: asyncio.Future[bool] = loop.create_future()

        def send() -> None:
            self._on_loop(settle, _c.request_post(request) != 0)

        def settle(done: bool) -> None:
            if not future.done():
                future.set_result(done)

        _lanes.add(name, send)
        return await future

    async def applications(self) -> list[str]:
        """The specifiers of the registered applications."""
        return await self._ask(_applications)

    async def resolve(self, specifier: str) -> str:
        """What a specifier is completed to; NotInstalled when nobody has it."""
        return await self._ask(_resolve, encoded(specifier, "a specifier"))

    async def path(self, specifier: str) -> str:
        """The path of an application; NotInstalled without one."""
        return await self._ask(_path, encoded(specifier, "a specifier"))

    async def is_running(self, specifier: str) -> bool:
        return bool(await self._ask(_c.is_running, encoded(specifier, "a specifier")))

    async def ping(self, target: str, key: str | None = None, *, timeout: float = 5) -> str:
        """What the application says of `key`, without one "ECHO_RESPONSE"; answered by a thread
        of its own, also while it is busy. Raises why it says nothing."""
        return await self._ask(_ping, encoded(target, "a target"),
                               None if key is None else encoded(key, "a key"), _ceil(timeout))

    async def launch(self, target: str, parameters: str = "", *, behind: bool = False) -> None:
        """Launches one that does not run, in front or behind; NotRunning when that fails."""
        await self._ask(_launch, encoded(target, "a target"),
                        encoded(parameters, "the parameters"), behind)

    async def front(self, target: str) -> None:
        """Brings an application to the front, as far as it runs and there is a desktop."""
        await self._ask(_front, encoded(target, "a target"))

    async def diagnostics(self) -> str:
        """The state of the layer as text for people."""
        return decoded(await self._ask(_c.diagnostics))

    async def monitor(self, target: str, *, bodies: bool = False) -> AsyncGenerator[Event, None]:
        """The messages of another application as they come, until it ends; Refused when it
        does not forward them, or forwards them to somebody else from then on."""
        watch = Watch(await self.resolve(target), bodies, self.ping)
        async with Application(f"monitor{os.getpid()}-2.0") as observer:
            observer.on("FWDMESSAGES")(watch.take)
            async with contextlib.aclosing(watch.events(observer.name)) as events:
                async for event in events:
                    yield event

    def _running(self) -> Loop:
        if self._handle is None:
            self._open()  # says so
        loop = asyncio.get_running_loop()
        if loop is not self._loop:
            raise RuntimeError("it belongs to another loop")
        return loop

    def _on_loop(self, function: Callable[..., object], *arguments: object) -> None:
        """Calls it on the thread of the loop: now, when this is that."""
        if threading.get_ident() == self._thread:
            function(*arguments)
        elif self._loop is not None:
            with contextlib.suppress(RuntimeError):  # the loop has been closed: nobody waits
                self._loop.call_soon_threadsafe(function, *arguments)

    async def _ask(self, function: Callable[..., R], *arguments: Any) -> R:
        """What may wait, away from the loop."""
        return await self._running().run_in_executor(None, function, *arguments)

    def _take(self, message: Message, reply: Reply) -> None:
        self._on_loop(self._handle_message, message, reply)

    def _handle_message(self, message: Message, reply: Reply) -> None:
        left = self._call(message, reply)
        if left is not None and self._loop is not None:
            task = self._loop.create_task(self._answer(left, message, reply))
            self._tasks.add(task)
            task.add_done_callback(self._tasks.discard)

    @staticmethod
    async def _answer(left: Awaitable[Result], message: Message, reply: Reply) -> None:
        message._reply = reply
        try:
            result = await left
            if message._reply is not None:
                reply.result("" if result is None else result)
        except Exception as error:
            _failed(reply, message, error)
        finally:
            message._reply = None
