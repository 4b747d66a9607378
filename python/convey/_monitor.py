"""The messages of another application, as it forwards them."""

from __future__ import annotations

import asyncio
from collections.abc import AsyncGenerator, Awaitable, Callable
from dataclasses import dataclass, field

from ._types import ConveyError, Message, Refused

_KEY = "FWDMESSAGES"
_BODIES = "FWDBODIES"
_MOST_KEPT = 10_000  # events that wait for their reader
_CHECK_SECONDS = 2.0  # how soon the end of the watched process is seen


@dataclass
class Event:
    """A message of the watched application."""

    of: str  # the watched application
    event: str = "processed"
    number: int = 0
    type: str = ""
    sender: str = ""
    target: str = ""
    size: int = 0  # of the body, in bytes
    text: str = ""  # the body's first line; the whole body when that is asked for
    headers: dict[str, str] = field(default_factory=dict)
    dropped: int = 0  # events that went before and were not told

    @classmethod
    def read(cls, message: Message) -> Event:
        """Each value is taken from its own place, so that no header passes for a field: of the
        fields, which stand before the headers, the first counts."""
        event = cls(message.sender)
        own = ""
        seen = set()
        for row in message.body.split("\n"):
            parts = row.split(";", 3)
            if len(parts) < 4 or parts[1] not in ("0", "1"):
                continue
            path, label = parts[0], parts[2]
            heading, value = parts[1] == "1", parts[3].removesuffix(";")
            if not own:
                if heading and path.startswith(message.headers.get("MsgRoot", "") + "/msg"):
                    own = path
                    event.number = int(value) if value.isdecimal() else 0
            elif path == own:
                event.event = value
            elif path.startswith(own + "/headers/"):
                event.headers[label] = value
            elif path == own + "/body" and heading:
                event.size = int(value.split()[0]) if value[:1].isdecimal() else 0
            elif path == own + "/body/text" and "whole" not in seen:
                event.text = value
            elif path == own + "/body/whole":
                seen.add("whole")
                event.text = _unfolded(value)
            else:
                name = path.removeprefix(own + "/")
                if name in ("type", "sender", "target") and name not in seen:
                    seen.add(name)
                    setattr(event, name, "" if value == "undefined" else value)
        return event


def _unfolded(value: str) -> str:
    """A value of several lines as it was before it became one."""
    parts = value.split("\\\\")
    return "\\".join(part.replace("\\n", "\n") for part in parts)


class Watch:
    """Has an application forward its messages, and takes them, while `events` is read."""

    def __init__(self, target: str, bodies: bool, ping: Callable[..., Awaitable[str]]) -> None:
        self._target = target
        self._keys = [_BODIES, _KEY] if bodies else [_KEY]  # no event goes before its body
        self._ping = ping
        self._events: asyncio.Queue[Event] = asyncio.Queue()
        self._last = 0  # event that has arrived
        self._dropped = 0

    def take(self, message: Message) -> None:
        event = Event.read(message)
        counted = message.headers.get("Event-Number", "")
        number = int(counted) if counted.isdecimal() else 0
        # It counts anew when it was started again.
        expected = self._last + 1 if number > self._last else 1
        event.dropped = max(0, number - expected)
        self._last = number
        if self._events.qsize() >= _MOST_KEPT:
            self._dropped += 1 + event.dropped
            return
        event.dropped += self._dropped
        self._dropped = 0
        self._events.put_nowait(event)

    async def events(self, observer: str) -> AsyncGenerator[Event, None]:
        try:
            for key in self._keys:  # setting a key is answered with its value
                answer = await self._ping(self._target, f"{key}={observer}")
                if answer != observer:
                    raise Refused(f"{self._target} does not forward: {answer}")
            while True:
                try:
                    yield await asyncio.wait_for(self._events.get(), _CHECK_SECONDS)
                except asyncio.TimeoutError:
                    if not await self._forwards(observer):
                        return
        finally:
            for key in self._keys:
                try:
                    if await self._ping(self._target, key, timeout=1) == observer:
                        await self._ping(self._target, f"{key}=", timeout=1)
                except ConveyError:
                    break  # it has ended; or it sees for itself that nobody is here

    async def _forwards(self, observer: str) -> bool:
        try:
            answer = await self._ping(self._target, _KEY)
        except ConveyError:
            return False
        if answer != observer:
            raise Refused(f"{self._target} forwards to somebody else")
        return True
