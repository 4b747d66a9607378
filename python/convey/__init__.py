"""Messages between the applications of this user: docs/python.md leads through it."""

from . import _c
from ._application import Application, BlockingApplication, Handler, Result
from ._monitor import Event
from ._types import (PLAIN, Answer, Cancelled, ConveyError, Error, Message, NotInstalled, NotRunning,
                     Refused, Reply, TimedOut)

__all__ = ["Answer", "Application", "BlockingApplication", "Cancelled", "ConveyError", "Error",
           "Event", "Handler", "Message", "NotInstalled", "NotRunning", "PLAIN", "Refused", "Reply",
           "Result", "TimedOut", "launch_options"]
__version__ = _c.version().decode()


def launch_options() -> str:
    """What this process was launched with, empty for nothing; for an open application."""
    return _c.launch_options().decode("utf-8", "surrogateescape")

for _name in __all__:  # which tracebacks and help call them by: where they are to be found
    if isinstance(globals()[_name], type):
        globals()[_name].__module__ = __name__
