"""What comes and goes: messages, replies, and how a request ends."""

from __future__ import annotations

from dataclasses import dataclass, field

from . import _c

RESULT, ERROR, TIMEOUT, NOT_RUNNING, NOT_INSTALLED, REFUSED, CANCELLED = range(7)
_RESULT = str(RESULT)
_OF_MESSAGE = 3  # where the texts of its message begin in those of an outcome
PLAIN = "Tessaly"
CODE_HANDLER_FAILED = 61
CODE_NOT_ANSWERED = 64


def decoded(text: bytes | None) -> str:
    """Peers may write what is no UTF-8: it is kept, and written back as the same bytes."""
    return "" if text is None else text.decode("utf-8", "surrogateescape")


def encoded(text: str | bytes, what: str, *, line: bool = True) -> bytes:
    """As the library takes it; what would arrive as something else is refused."""
    if not isinstance(text, (str, bytes)):
        raise TypeError(f"{what}: str or bytes, not {type(text).__name__}")
    raw = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else text
    if b"\0" in raw:
        raise ValueError(f"{what} has a NUL")
    if line and b"\n" in raw:
        raise ValueError(f"{what} has a line feed")
    return raw


class ConveyError(Exception):
    """A request that did not end with a result; one class for each other end."""

    def __init__(self, text: str = "", code: int = 0) -> None:
        super().__init__(text)
        self.text = text
        self.code = code
        self.message: Message | None = None  # the reply, when one came


class Error(ConveyError):
    """The target could not: `code` and `text`. A handler raises it to answer with just these."""

    def __init__(self, code: int, text: str = "") -> None:
        super().__init__(text, code)

    def __str__(self) -> str:
        return f"{self.text} ({self.code})"


class TimedOut(ConveyError, TimeoutError):
    """No answer in time; the target may have handled the request, or still do so."""


class NotRunning(ConveyError):
    """Registered, and does not run; it was not sent."""


class NotInstalled(ConveyError):
    """Nobody has that name; it was not sent."""


class Refused(ConveyError):
    """The target took or wanted no message; the text says more."""


class Cancelled(ConveyError):
    """The application or the layer has ended. (That the awaiting task was cancelled, is told to it
    as asyncio's CancelledError.)"""


_CLASSES: dict[int, type[ConveyError]] = {
    TIMEOUT: TimedOut, NOT_RUNNING: NotRunning, NOT_INSTALLED: NotInstalled, REFUSED: Refused,
    CANCELLED: Cancelled,
}
_TEXTS = {TIMEOUT: "no answer in time", CANCELLED: "the application has ended"}


@dataclass(slots=True)
class Message:
    """A message that came in, read whole: good for ever."""

    body: str
    type: str
    sender: str
    target: str
    number: int
    timeout: int  # seconds after which the sender waits no longer, 0 for unknown
    wants_result: bool
    headers: dict[str, str]
    _reply: Reply | None = field(default=None, repr=False, compare=False)

    def defer(self) -> Reply:
        """The reply, to be given later and from any thread; what the handler returns is none
        then. For the handler, once."""
        reply, self._reply = self._reply, None
        if reply is None:
            raise RuntimeError("the reply was taken already, or the message has none")
        return reply

    @classmethod
    def _of(cls, texts: list[str], start: int = 0) -> Message:
        number, timeout, wants_result, type, sender, target, body = texts[start:start + 7]
        # The last value of a name counts, and comes first.
        headers = dict(zip(texts[-3:start + 6:-2], texts[-2:start + 6:-2]))
        return cls(body, type, sender, target, int(number), int(timeout), wants_result == "1",
                   headers)


class Answer(str):
    """The result of a request: its text, and the message that brought it."""

    _texts: list[str]

    @property
    def message(self) -> Message:
        # Made for who asks: it takes as long as all the rest, and few do.
        made: Message | None = self.__dict__.get("_message")
        if made is None:
            made = self.__dict__["_message"] = Message._of(self._texts, _OF_MESSAGE)
        return made


class Reply:
    """The reply to one request, to be given once, from any thread. One that is let go of
    unanswered answers with an error."""

    def __init__(self, handle: int) -> None:
        self.__dict__["handle"] = handle

    def _take(self) -> int | None:
        # One step for the interpreter: of two threads one gets it.
        handle: int | None = self.__dict__.pop("handle", None)
        return handle

    def result(self, text: str | bytes = "") -> bool:
        """False when it came too late: it was given, or the application has ended."""
        raw = encoded(text, "a result", line=False)
        handle = self._take()
        return handle is not None and _c.reply_result(handle, raw, len(raw)) != 0

    def error(self, code: int, text: str = "") -> bool:
        raw = encoded(text, "the text of an error", line=False)
        handle = self._take()
        return handle is not None and _c.reply_error(handle, code, raw) != 0

    def __del__(self) -> None:
        handle = self._take()
        if handle is not None:
            _c.reply_drop(handle)


def outcome_of(outcome: int | None) -> Answer | ConveyError:
    """What an outcome of the library's is to its asker: the result, or what is raised."""
    texts = _c.outcome_texts(outcome)
    has_message = len(texts) > _OF_MESSAGE + 1
    if texts[0] == _RESULT and has_message:
        answer = Answer(texts[_OF_MESSAGE + 6])  # its body
        answer._texts = texts
        return answer
    kind, code, text = int(texts[0]), int(texts[1]), texts[2]
    message = Message._of(texts, _OF_MESSAGE) if has_message else None
    error: ConveyError
    if kind in _CLASSES:
        error = _CLASSES[kind](text or _TEXTS.get(kind, ""), code)
    else:
        error = Error(code, text)
    error.message = message
    return error
