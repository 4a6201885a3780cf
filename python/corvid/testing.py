"""Tests of applications without a daemon.

    import corvid.testing

    def test_a_song_that_ends_is_reported():
        sink = corvid.testing.TestSink()
        with corvid.Session(test_sink=sink) as session:
            code_under_test(session)
        assert [call.payload for call in sink.calls()] == [{"action": "end"}]
"""

from __future__ import annotations

import ctypes
import enum
import threading
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Any

from . import _abi, values
from ._abi import lib
from ._calls import uint16
from ._native import milliseconds
from .errors import ErrorCode, check, error_of
from .results import Failure, States
from .values import Storable, Value, from_array, from_dictionary


class Operation(enum.IntEnum):
    """What a session asks."""

    SET_SESSION_INFO = 0
    START_CONFIG = 1
    FETCH_STATES = 2
    FETCH_DISPLAY_URL = 3
    SEND_MESSAGE = 4
    SEND_MESSAGE_WITH_DICTIONARY = 5
    FLUSH = 6
    FINISH = 7
    UPLOAD_FILE = 8
    UPLOAD_LOG_DATA = 9
    SEND_SINGLE_MESSAGE = 10


@dataclass(frozen=True)
class Call:
    """A call as a session made it. What belongs to other operations is None, 0 or False."""

    operation: Operation
    wants_answer: bool
    has_aggregation_block: bool
    category: int
    type: int
    session_info: dict[str, Value] | None
    user_info: dict[str, Value] | None
    message: dict[str, Value] | None  # of a message that has a flag
    payload: dict[str, Value] | None
    array: list[Value] | None  # frameworks, or log data
    file_url: str | None


class TestSink:
    """Stands in for the daemon: records what sessions ask and answers what the test says.

    No process, no socket. One may serve several sessions, which keep it alive; its methods may be
    called from any thread, in handlers too. Until it is told otherwise it can be reached, answers
    messages with nothing as taken, states with none for the reason "notConfigured", everything else
    with nothing, and uploads with success.
    """

    __test__ = False  # pytest: no tests here

    def __init__(self) -> None:
        sink = lib.corvid_test_sink_create()
        if not sink:
            raise error_of(ErrorCode.NO_MEMORY)
        self._as_parameter_ = sink
        self._reading = threading.Lock()  # clear() waits for calls that are being copied

    def __del__(self, destroy: Any = lib.corvid_test_sink_destroy) -> None:
        if hasattr(self, "_as_parameter_"):
            destroy(self)

    def calls(self) -> list[Call]:
        """Those that have reached the sink so far, in order, remembered ones included."""
        with self._reading:
            return [self._call(index) for index in range(lib.corvid_test_sink_call_count(self))]

    def await_calls(self, count: int, timeout: float = 10) -> list[Call]:
        """Waits until there are so many; TimeoutError where they have not come in so many seconds.
        In an event loop, rather await what makes them."""
        if not lib.corvid_test_sink_await_calls(self, count, milliseconds(timeout, "timeout")):
            raise TimeoutError(f"{lib.corvid_test_sink_call_count(self)} of {count} calls came")
        return self.calls()

    def clear(self) -> None:
        """Forgets the calls."""
        with self._reading:
            lib.corvid_test_sink_clear(self)

    def answer(
        self,
        operation: Operation,
        *,
        times: int = 0,
        error: ErrorCode = ErrorCode.OK,
        unanswered: bool = False,
        withheld: bool = False,
        text: str | None = None,
        reason: str | None = None,
        states: States | None = None,
        success: bool = True,
        failure: Failure | None = None,
    ) -> None:
        """Answers the next `times` calls of the operation with this, after what was said for it
        before; with 0 times, all for which nothing else is said.

        error        other than OK: the call fails with it, and the rest is not looked at
        unanswered   the daemon gives no answer
        withheld     nothing comes, until the answer deadline or the end of the connection
        reason       nobody took the message, for this reason; None: it was taken
        """
        if times < 0:
            raise OverflowError(f"times: {times} is below 0")
        answer = _abi.corvid_test_answer_t(
            size=ctypes.sizeof(_abi.corvid_test_answer_t),
            error=error,
            unanswered=unanswered,
            withheld=withheld,
            text=_word(text, "text"),
            reason=_word(reason, "reason"),
            success=success,
        )
        told = None if states is None else _States(states)
        if told is not None:
            answer.states = told._as_parameter_
        if failure is not None:
            answer.failure = ctypes.pointer(
                _abi.corvid_error_t(
                    _word(failure.domain, "domain"),
                    failure.code,
                    _word(failure.description, "description"),
                )
            )
        check(lib.corvid_test_sink_answer(self, operation, times, answer))

    def deliver(
        self,
        message: Mapping[str, Storable] | None = None,
        timestamp: float = 0,
        category: int = 0,
        type: int = 0,
        payload: Mapping[str, Storable] | None = None,
    ) -> None:
        """Delivers to each session that is connected; with nothing, tells it to shut down."""
        check(
            lib.corvid_test_sink_deliver(
                self,
                values.dictionary(message, "message"),
                timestamp,
                uint16(category, "category"),
                uint16(type, "type"),
                values.dictionary(payload, "payload"),
            )
        )

    def change_states(self, states: States) -> None:
        """Tells each session that is connected. `reporting` follows from the backends."""
        check(lib.corvid_test_sink_change_states(self, _States(states)))

    def set_reachable(self, reachable: bool) -> None:
        """Whether connections can be made, as by a daemon that runs or does not."""
        check(lib.corvid_test_sink_set_reachable(self, reachable))

    def disconnect(self) -> None:
        """Ends the connections that there are, as a daemon does that ends."""
        check(lib.corvid_test_sink_disconnect(self))

    def _call(self, index: int) -> Call:
        call = _abi.corvid_test_call_t()
        check(lib.corvid_test_sink_get_call(self, index, call, ctypes.sizeof(call)))
        return Call(
            Operation(call.operation),
            call.wants_answer,
            call.has_aggregation_block,
            call.category,
            call.type,
            from_dictionary(call.session_info),
            from_dictionary(call.user_info),
            from_dictionary(call.message),
            from_dictionary(call.payload),
            from_array(call.array),
            None if call.file_url is None else call.file_url.decode(),
        )


class _States:
    """States of the library, for as long as this object is there."""

    def __init__(self, states: States) -> None:
        made = lib.corvid_states_create()
        if not made:
            raise error_of(ErrorCode.NO_MEMORY)
        self._as_parameter_ = made
        check(lib.corvid_states_set_reason(self, _word(states.reason, "reason")))
        for backend in states.backends:
            words: Sequence[str] = (backend.name, backend.state, backend.reason)
            check(lib.corvid_states_add(self, *(_word(word, "states") for word in words)))

    def __del__(self, destroy: Any = lib.corvid_states_destroy) -> None:
        if hasattr(self, "_as_parameter_"):
            destroy(self)


def _word(text: str | None, name: str) -> bytes | None:
    """A text that ends with a zero byte."""
    if text is None:
        return None
    encoded = values.utf8(text, (name,))
    if b"\0" in encoded:
        raise ValueError(f"{name}: a text with a zero character")
    return encoded
