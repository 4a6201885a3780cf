"""The client library of corvidd, for Python: describe this process once, then report events, which
the daemon delivers.

Session           for programs with threads
corvid.values     what can be reported
corvid.keys       names that the daemon and its clients agree on

To be imported where they are needed:

corvid.aio        for programs with asyncio
corvid.testing    for tests of programs that report, without a daemon

It needs the shared library, libcorvid.so.0, and nothing but Python's standard library.
"""

from . import keys, values
from ._abi import lib as _lib
from ._calls import Description
from .errors import (
    ClosedError,
    ConnectionLostError,
    CorvidError,
    ErrorCode,
    ForkedError,
    NotConnectedError,
    QueueFullError,
    TimedOutError,
    TooLargeError,
    UnansweredError,
)
from .results import (
    Answer,
    Backend,
    Delivery,
    Disposition,
    Failure,
    Flushed,
    Reason,
    State,
    States,
    Uploaded,
)
from .session import Reply, Session

__all__ = [
    "Answer",
    "Backend",
    "ClosedError",
    "ConnectionLostError",
    "CorvidError",
    "Delivery",
    "Description",
    "Disposition",
    "ErrorCode",
    "Failure",
    "Flushed",
    "ForkedError",
    "NotConnectedError",
    "QueueFullError",
    "Reason",
    "Reply",
    "Session",
    "State",
    "States",
    "TimedOutError",
    "TooLargeError",
    "UnansweredError",
    "Uploaded",
    "keys",
    "library_version",
    "values",
]


def library_version() -> str:
    """The version of the library in use, such as "0.1.0"."""
    version: bytes = _lib.corvid_version()
    return version.decode()
