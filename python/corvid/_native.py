"""A session of the library, kept safe: no function is called after its end, no callback goes
astray.

The library is given numbers, not objects: callbacks look up here what a number stands for until
the library has said that it calls back no more. So nothing that it may still call is ever collected.

An exception that leaves a callback goes to sys.unraisablehook, which prints it; the library goes on.
"""

from __future__ import annotations

import atexit
import ctypes
import itertools
import math
import os
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any, Generic, Protocol, TypeVar

from . import _abi
from ._abi import lib
from ._calls import Call, in_file_system
from .errors import ErrorCode, check, error_of, unanswered
from .results import delivery, states_of

T = TypeVar("T")
T_contra = TypeVar("T_contra", contravariant=True)

_UNANSWERED = 1  # of corvid_outcome_t


class Completion(Protocol[T_contra]):
    """Whoever waits for a call. Told once, where callbacks run."""

    def succeed(self, result: T_contra) -> None: ...

    def fail(self, error: BaseException) -> None: ...


class _UnderWay(Generic[T]):
    """An accepted call. Without a wish for its answer, its end is a success."""

    def __init__(self, session: NativeSession, call: Call[T], completion: Completion[Any]) -> None:
        self.session = session
        self._call = call
        self._completion = completion
        self._result: T | None = None
        self._error: BaseException | None = None

    def answer(self, code: int, given: tuple[Any, ...]) -> None:
        try:
            check(code)
            self._result = self._call.result(*given)
        except BaseException as error:  # is told to whoever waits
            self._error = error

    def finish(self, outcome: int) -> None:
        if outcome == _UNANSWERED:
            self._error = unanswered()
        if self._error is None:
            self._completion.succeed(self._result)
        else:
            self._completion.fail(self._error)


_numbers = itertools.count(1)
_calls: dict[int, _UnderWay[Any]] = {}
_sessions: dict[int, NativeSession] = {}


# A call that Ctrl-C has interrupted as it was accepted is not here, and nobody waits for it.


def _on_answer(number: int, code: int, *given: Any) -> None:
    call = _calls.get(number)
    if call is not None:
        with call.session.calling_back():
            call.answer(code, given)


def _on_finished(number: int, outcome: int) -> None:
    call = _calls.pop(number, None)
    if call is not None:
        with call.session.calling_back():
            call.finish(outcome)


def _tell(number: int, handler: str, *given: Any) -> None:
    session = _sessions[number]
    with session.calling_back():
        session.handlers[handler](*given)


def _plain_handler(name: str) -> Any:
    return _abi.plain_handler(lambda number: _tell(number, name))


# What the library calls for each handler that the host has.
_HANDLERS = {
    "message": _abi.message_handler(
        lambda number, *given: _tell(number, "message", delivery(*given))
    ),
    "states_changed": _abi.states_handler(
        lambda number, states: _tell(number, "states_changed", states_of(states))
    ),
    "connected": _plain_handler("connected"),
    "reconnected": _plain_handler("reconnected"),
    "invalidated": _plain_handler("invalidated"),
}
_RELEASED = _abi.plain_handler(lambda number: _sessions.pop(number))
# What it calls with an answer, and what stands for no such callback.
_ANSWERED = {
    kind: (kind(_on_answer), kind())
    for kind in (
        _abi.corvid_text_callback_t,
        _abi.corvid_states_callback_t,
        _abi.corvid_flush_callback_t,
        _abi.corvid_success_callback_t,
    )
}
_FINISHED = _abi.corvid_finished_callback_t(_on_finished)
_NOT_FINISHED = _abi.corvid_finished_callback_t()


class NativeSession:
    """Threads: any. A thread that closes the session waits until no other is in the library. Where
    it is there itself, since a handler that dispatch() runs closes the session, or that of a
    signal, the session is destroyed as soon as it returns from there."""

    def __init__(
        self,
        *,
        root: str | os.PathLike[str] | None,
        deadline: float,
        answer_deadline: float | None,
        dispatch: bool,
        test_sink: Any,
        handlers: dict[str, Callable[..., object] | None],
    ) -> None:
        self.handlers = {name: each for name, each in handlers.items() if each is not None}
        self._process = os.getpid()
        self._test_sink = test_sink  # must live as long
        self._changed = threading.Condition()
        self._callers: dict[int, int] = {}  # how often each thread is in the library
        self._calling_back: int | None = None  # the thread that callbacks run on, while they do
        self._closed = False
        self._to_destroy = False
        number = next(_numbers)
        options = _abi.corvid_options_t(
            size=ctypes.sizeof(_abi.corvid_options_t),
            root=None if root is None else in_file_system(root),
            deadline_ms=milliseconds(deadline, "deadline"),
            context=number,
            released=_RELEASED,
            dispatch=dispatch,
            **{name: _HANDLERS[name] for name in self.handlers},
        )
        if answer_deadline is not None:
            # None is no deadline; the library says 0 for that.
            options.answer_deadline_ms = max(1, milliseconds(answer_deadline, "answer_deadline"))
        if test_sink is not None:
            options.test_sink = test_sink._as_parameter_
        self._session = ctypes.POINTER(_abi.corvid_session_t)()
        _sessions[number] = self
        try:
            check(lib.corvid_session_create(options, self._session))
        except BaseException:
            del _sessions[number]
            raise

    def perform(self, call: Call[T], completion: Completion[T] | None, *, answer: bool) -> None:
        """Makes the call, or raises. `completion` is told of its end, and of its answer where one
        is wanted."""
        kinds = call.function.argtypes[1 + len(call.arguments) : -2]
        callbacks = [_ANSWERED[kind][0 if answer else 1] for kind in kinds]
        if completion is None:
            with self._using() as session:
                check(call.function(session, *call.arguments, *callbacks, _NOT_FINISHED, None))
            return
        number = next(_numbers)
        _calls[number] = _UnderWay(self, call, completion)
        try:
            with self._using() as session:
                check(call.function(session, *call.arguments, *callbacks, _FINISHED, number))
        except BaseException:
            _calls.pop(number, None)
            raise

    def connect(self) -> None:
        with self._using() as session:
            check(lib.corvid_session_connect(session))

    def fileno(self) -> int:
        with self._using() as session:
            descriptor: int = lib.corvid_session_get_fd(session)
        if descriptor < 0:
            raise error_of(ErrorCode.INVALID_ARGUMENT)
        return descriptor

    def dispatch(self) -> None:
        with self._using() as session:
            check(lib.corvid_session_dispatch(session))

    def close(self) -> None:
        """A second time does nothing, and so in a child process."""
        if os.getpid() != self._process:
            return
        me = threading.get_ident()
        with self._changed:
            if self._closed:
                return
            self._closed = True
            if me in self._callers:
                self._to_destroy = True
                return
            while self._callers.keys() - {me}:
                self._changed.wait()
        lib.corvid_session_destroy(self._session)

    def is_closed(self) -> bool:
        return self._closed

    def check_process(self) -> None:
        if os.getpid() != self._process:
            raise error_of(ErrorCode.FORKED)

    def calls_back_here(self) -> bool:
        """Whether this thread is in a callback of the session."""
        return self._calling_back == threading.get_ident()

    @contextmanager
    def calling_back(self) -> Iterator[None]:
        self._calling_back = threading.get_ident()
        try:
            yield
        finally:
            self._calling_back = None

    @contextmanager
    def _using(self) -> Iterator[Any]:
        """The session, which is not destroyed meanwhile."""
        self.check_process()
        me = threading.get_ident()
        with self._changed:
            if self._closed:
                raise error_of(ErrorCode.CLOSED)
            self._callers[me] = self._callers.get(me, 0) + 1
        try:
            yield self._session
        finally:
            with self._changed:
                self._callers[me] -= 1
                if self._callers[me] == 0:
                    del self._callers[me]
                self._changed.notify_all()
                destroys = self._to_destroy and not self._callers
                self._to_destroy = self._to_destroy and not destroys
            if destroys:
                lib.corvid_session_destroy(self._session)


def milliseconds(seconds: float, name: str) -> int:
    """The library takes 32 bits; ctypes would cut off the others."""
    whole = math.ceil(seconds * 1000)
    if not 0 <= whole < 2**32:
        raise OverflowError(f"{name}: {seconds} seconds are outside of 0 to {2**32 // 1000 - 1}")
    return whole


def _close_all() -> None:
    """At the end of the process, while callbacks can still run."""
    for session in list(_sessions.values()):
        session.close()
    until = time.monotonic() + 1  # for what was closed in a callback, and ends after it
    while _sessions and time.monotonic() < until:
        time.sleep(0.001)


def _forget_all() -> None:
    """In a child process, which has none of the threads that would call back."""
    _sessions.clear()
    _calls.clear()


atexit.register(_close_all)
os.register_at_fork(after_in_child=_forget_all)
