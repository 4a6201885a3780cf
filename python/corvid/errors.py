"""What goes wrong: one family of exceptions, each with the library's code."""

from __future__ import annotations

import enum

from ._abi import lib


class ErrorCode(enum.IntEnum):
    """The library's result codes; see CORVID_ERROR_... in corvid.h."""

    OK = 0
    INVALID_ARGUMENT = 1
    INVALID_TEXT = 2
    TOO_DEEP = 3
    TOO_LARGE = 4
    WRONG_TYPE = 5
    QUEUE_FULL = 6
    NOT_CONNECTED = 7
    CONNECTION_LOST = 8
    CLOSED = 9
    NOT_SUPPORTED = 10
    BAD_REPLY = 11
    FORKED = 12
    NO_MEMORY = 13
    SYSTEM = 14
    TIMED_OUT = 15


class CorvidError(Exception):
    """A call that was refused, when a method raises it, or that failed later, when its reply does.

    `code` is an `ErrorCode`, or the number that a newer library gave.
    """

    code: int

    def __init__(self, code: int, text: str | None = None) -> None:
        super().__init__(text or lib.corvid_error_text(code).decode())
        try:
            self.code = ErrorCode(code)
        except ValueError:
            self.code = code


class NotConnectedError(CorvidError, ConnectionError):
    """The daemon cannot be reached; a later call tries again. What was described and started is
    remembered and told to the first connection."""


class ConnectionLostError(CorvidError, ConnectionError):
    """The connection broke while the call was under way."""


class TimedOutError(CorvidError, TimeoutError):
    """Not answered before the session's answer deadline; it may still have been taken."""


class QueueFullError(CorvidError):
    """No room for the call before the session's deadline."""


class TooLargeError(CorvidError, ValueError):
    """More than travels in one message, or than the daemon keeps of infos."""


class ClosedError(CorvidError):
    """The session was closed, before the call or while it was under way."""


class ForkedError(CorvidError):
    """The session belongs to the parent process: create another one."""


class UnansweredError(CorvidError):
    """The daemon has finished with the call and gives no answer to it. Its code is OK."""


_CLASSES: dict[int, type[CorvidError]] = {
    ErrorCode.OK: UnansweredError,
    ErrorCode.TOO_LARGE: TooLargeError,
    ErrorCode.QUEUE_FULL: QueueFullError,
    ErrorCode.NOT_CONNECTED: NotConnectedError,
    ErrorCode.CONNECTION_LOST: ConnectionLostError,
    ErrorCode.CLOSED: ClosedError,
    ErrorCode.FORKED: ForkedError,
    ErrorCode.TIMED_OUT: TimedOutError,
}


def error_of(code: int) -> CorvidError:
    """The exception that stands for a code of the library."""
    return _CLASSES.get(code, CorvidError)(code)


def unanswered() -> UnansweredError:
    return UnansweredError(ErrorCode.OK, "the daemon gives no answer")


def check(code: int) -> None:
    if code != ErrorCode.OK:
        raise error_of(code)
