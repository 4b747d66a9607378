"""The functions of libconvey that the package uses, by ctypes.

Texts go in and come out as bytes: the library's own have no NUL in them, so that their end tells
their length. What only reads a value keeps the interpreter's lock (`_quick`); what may wait, or
call functions of ours, lets go of it.
"""

from __future__ import annotations

import ctypes
import itertools
import threading
from collections.abc import Callable
from ctypes import byref as byref, c_void_p as c_void_p
from ctypes import c_char_p, c_int, c_size_t, c_uint
from typing import Any

_NAME = "libconvey.so.2"
try:
    _waiting = ctypes.CDLL(_NAME)
    _quick = ctypes.PyDLL(_NAME)
except OSError as error:
    raise ImportError(f"{_NAME} is not installed: {error}") from error

MESSAGE_FUNCTION = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, c_void_p)
OUTCOME_FUNCTION = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
DATA_FUNCTION = ctypes.CFUNCTYPE(None, c_void_p)


def _bound(library: ctypes.CDLL, name: str, result: Any, *arguments: Any) -> Callable[..., Any]:
    function = getattr(library, "convey_" + name)
    function.restype = result
    function.argtypes = arguments
    return function  # type: ignore[no-any-return]


version = _bound(_quick, "version", c_char_p)

application_new = _bound(_waiting, "application_new", c_void_p, c_char_p)
application_free = _bound(_waiting, "application_free", None, c_void_p)
application_is_reachable = _bound(_waiting, "application_is_reachable", c_int, c_void_p)
application_name = _bound(_quick, "application_name", c_char_p, c_void_p)
application_on = _bound(_waiting, "application_on", c_int, c_void_p, c_char_p, MESSAGE_FUNCTION,
                        c_void_p, DATA_FUNCTION)
application_off = _bound(_waiting, "application_off", c_int, c_void_p, c_char_p)

poll_descriptor = _bound(_waiting, "poll_descriptor", c_int)
pump = _bound(_waiting, "pump", c_int)
pump_or_wait = _bound(_waiting, "pump_or_wait", c_int, c_uint)
run = _bound(_waiting, "run", c_int)
quit = _bound(_waiting, "quit", None)

_message_copy = _bound(_quick, "message_copy", c_size_t, c_void_p, c_void_p, c_size_t)

reply_result = _bound(_waiting, "reply_result", c_int, c_void_p, c_char_p, c_size_t)
reply_error = _bound(_waiting, "reply_error", c_int, c_void_p, c_int, c_char_p)
reply_drop = _bound(_waiting, "reply_drop", None, c_void_p)

request_new = _bound(_waiting, "request_new", c_void_p, c_void_p, c_char_p, c_char_p, c_size_t)
request_free = _bound(_waiting, "request_free", None, c_void_p)
request_set_type = _bound(_quick, "request_set_type", c_int, c_void_p, c_char_p)
request_set_header = _bound(_quick, "request_set_header", c_int, c_void_p, c_char_p, c_char_p)
request_set_launch = _bound(_quick, "request_set_launch", c_int, c_void_p, c_char_p)
request_set_timeout = _bound(_quick, "request_set_timeout", c_int, c_void_p, c_uint)
request_send = _bound(_waiting, "request_send", c_void_p, c_void_p, OUTCOME_FUNCTION, c_void_p,
                      DATA_FUNCTION)
request_post = _bound(_waiting, "request_post", c_int, c_void_p)
request_try_send = _bound(_waiting, "request_try_send", c_int, c_void_p, OUTCOME_FUNCTION, c_void_p,
                          DATA_FUNCTION, c_void_p)
request_try_post = _bound(_waiting, "request_try_post", c_int, c_void_p)
pending_cancel = _bound(_waiting, "pending_cancel", None, c_void_p)

_outcome_copy = _bound(_quick, "outcome_copy", c_size_t, c_void_p, c_void_p, c_size_t)

_applications = _bound(_waiting, "applications", c_void_p)
_list_count = _bound(_quick, "list_count", c_size_t, c_void_p)
_list_at = _bound(_quick, "list_at", c_char_p, c_void_p, c_size_t)
_list_free = _bound(_quick, "list_free", None, c_void_p)
_text_free = _bound(_quick, "text_free", None, c_void_p)
_resolve = _bound(_waiting, "resolve", c_void_p, c_char_p)
_path = _bound(_waiting, "path", c_void_p, c_char_p)
_ping = _bound(_waiting, "ping", c_void_p, c_char_p, c_char_p, c_int, c_char_p)
_diagnostics = _bound(_waiting, "diagnostics", c_void_p)
_launch_options = _bound(_waiting, "launch_options", c_void_p)
is_installed = _bound(_waiting, "is_installed", c_int, c_char_p)
is_running = _bound(_waiting, "is_running", c_int, c_char_p)
launch = _bound(_waiting, "launch", c_int, c_char_p, c_char_p, c_int)
front = _bound(_waiting, "front", c_int, c_char_p)


class _Buffer:
    def __init__(self, size: int) -> None:
        self.size = size
        array = bytearray(size)
        self.start = (ctypes.c_char * size).from_buffer(array)
        self.view = memoryview(array)


class _Local(threading.local):
    """Of each thread: between a copy and its reading another one may go on."""

    def __init__(self) -> None:
        self.buffer = _Buffer(1 << 16)


_local = _Local()


def _copied(copy: Callable[..., Any], what: int | None) -> list[str]:
    """The texts of something, by one call. Peers may write what is no UTF-8: it is kept."""
    buffer = _local.buffer
    length = copy(what, buffer.start, buffer.size)
    if length > buffer.size:
        buffer = _Buffer(length)
        copy(what, buffer.start, length)
    return str(buffer.view[:length], "utf-8", "surrogateescape").split("\0")


def message_texts(message: int) -> list[str]:
    """Number, time-out, whether a result is wanted, type, sender, target and body; then names and
    values of headers, the sender's last first; and an empty one."""
    return _copied(_message_copy, message)


def outcome_texts(outcome: int | None) -> list[str]:
    """Kind, code and text, and then what `message_texts` gives; or an empty one."""
    return _copied(_outcome_copy, outcome)


def _taken(text: int | None) -> bytes:
    """A text that is ours, as bytes, and given back."""
    if text is None:
        raise MemoryError
    try:
        return ctypes.string_at(text)
    finally:
        _text_free(text)


def applications() -> list[bytes]:
    texts = _applications()
    if texts is None:
        raise MemoryError
    try:
        return [_list_at(texts, index) for index in range(_list_count(texts))]
    finally:
        _list_free(texts)


def resolve(specifier: bytes) -> bytes:
    return _taken(_resolve(specifier))


def path(specifier: bytes) -> bytes:
    return _taken(_path(specifier))


def ping(specifier: bytes, key: bytes | None, seconds: int) -> bytes:
    return _taken(_ping(specifier, key, seconds, None))


def diagnostics() -> bytes:
    return _taken(_diagnostics())


def launch_options() -> bytes:
    return _taken(_launch_options())


# What a function of ours is called for, under the number that the library gets as its data: an
# object that has gone is no pointer then that nobody may use.
_kept: dict[int, Any] = {}
_numbers = itertools.count(1)


def keep(what: Any) -> int:
    number = next(_numbers)
    _kept[number] = what
    return number


def kept(number: int) -> Any:
    return _kept.get(number)


def release(number: int) -> None:
    _kept.pop(number, None)


forget = DATA_FUNCTION(release)
nothing = DATA_FUNCTION(0)
