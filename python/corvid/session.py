"""A session with the daemon, for programs with threads."""

from __future__ import annotations

import os
import warnings
import weakref
from collections.abc import Callable, Mapping, Sequence
from concurrent.futures import Future
from types import TracebackType
from typing import TYPE_CHECKING, Generic, Self, TypeVar

from . import _calls
from ._calls import Call, Description
from ._native import NativeSession
from .results import Answer, Delivery, Flushed, States, Uploaded
from .values import Storable

if TYPE_CHECKING:
    from typing_extensions import Self

    from .testing import TestSink

T = TypeVar("T")

DEFAULT_DEADLINE = 0.1  # seconds


class Reply(Future[T], Generic[T]):
    """What the daemon will answer: a future whose result or CorvidError comes by itself.

    It cannot be cancelled, since an accepted call cannot be withdrawn. Functions given to
    add_done_callback run where the session's callbacks do; `concurrent.futures` logs what they
    raise. Without an answer deadline of the session, and without a `timeout`, waiting may last as
    long as the daemon lets it.
    """

    def __init__(self, session: NativeSession) -> None:
        super().__init__()
        self._session = session
        self.set_running_or_notify_cancel()

    def result(self, timeout: float | None = None) -> T:
        """RuntimeError in a callback of the same session, which would wait for itself; ForkedError
        in a child process, where nothing comes."""
        self._check_that_it_may_come()
        return super().result(timeout)

    def exception(self, timeout: float | None = None) -> BaseException | None:
        """As result()."""
        self._check_that_it_may_come()
        return super().exception(timeout)

    def _check_that_it_may_come(self) -> None:
        if self.done():
            return
        self._session.check_process()
        if self._session.calls_back_here():
            raise RuntimeError("a callback of a session waits for an answer of the same session")

    def succeed(self, result: T) -> None:
        self.set_result(result)

    def fail(self, error: BaseException) -> None:
        self.set_exception(error)


class Session:
    """Describes this process once and then reports events. Nothing waits for a server.

        with corvid.Session() as session:
            session.describe(corvid.Description(client_type=5, client_name="Player"))
            session.start()
            answer = session.send(7, 2, {"action": "play", "position": 12.5}).result(timeout=10)
            if not answer.taken:
                print(answer.reason.text)

    Errors     A method raises CorvidError where the library refuses the call, which then has no
               effect save for what is remembered; TypeError, ValueError or OverflowError for an
               argument, see corvid.values. What goes wrong later is raised by the Reply.
    Remembered What was described and whether it was started, also where the daemon could not be
               reached (NotConnectedError): each new connection is told first. No event is.
    Threads    Any may use a session. Its handlers run on a thread of the library, one after the
               other; they may use the session, and should return soon. What one raises goes to
               sys.unraisablehook, and the session goes on.
    Waiting    A method never waits longer than the deadline, and in a handler not at all.
    End        close(), which `with` calls. It gives accepted calls until the deadline to be
               answered; replies that are left raise ClosedError. Sessions that are open when the
               interpreter ends are closed then; one that is forgotten is closed with a
               ResourceWarning.
    fork       A child process has no use of its parent's sessions: methods raise ForkedError, and
               close() does nothing.
    """

    def __init__(
        self,
        *,
        root: str | os.PathLike[str] | None = None,
        deadline: float = DEFAULT_DEADLINE,
        answer_deadline: float | None = None,
        dispatch: bool = False,
        test_sink: TestSink | None = None,
        on_message: Callable[[Delivery], object] | None = None,
        on_states_changed: Callable[[States], object] | None = None,
        on_connected: Callable[[], object] | None = None,
        on_reconnected: Callable[[], object] | None = None,
        on_invalidated: Callable[[], object] | None = None,
    ) -> None:
        """Does not connect.

        root                the folder that everything hangs below; None: $CORVID_ROOT, or "/"
        deadline            the longest that a method waits, in seconds
        answer_deadline     the longest from a call to its answer, in seconds, after which its reply
                            raises TimedOutError; None: none
        dispatch            handlers and replies wait for dispatch(), so that whoever waits for a
                            reply must not be the only one to call it; see fileno()
        test_sink           answers in place of a daemon
        on_message          deliveries for a session that aggregates
        on_states_changed   the states, or their reasons, are others than the daemon told last
        on_connected        a connection is there, and has been told what is remembered
        on_reconnected      the same, for every connection but the first
        on_invalidated      the connection is lost
        """
        self._native = NativeSession(
            root=root,
            deadline=deadline,
            answer_deadline=answer_deadline,
            dispatch=dispatch,
            test_sink=test_sink,
            handlers={
                "message": on_message,
                "states_changed": on_states_changed,
                "connected": on_connected,
                "reconnected": on_reconnected,
                "invalidated": on_invalidated,
            },
        )
        weakref.finalize(self, close_forgotten, self._native).atexit = False

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def close(self) -> None:
        """No handler runs after it has returned, save where a handler of this session calls it. A
        second time does nothing."""
        self._native.close()

    def connect(self) -> None:
        """Connects, where there is no connection; any call does so too."""
        self._native.connect()

    def fileno(self) -> int:
        """For event loops: with `dispatch`, readable while handlers and replies wait. Poll it, do
        nothing else with it. It lives as long as the session."""
        return self._native.fileno()

    def dispatch(self) -> None:
        """Runs the handlers and completes the replies that wait, on this thread, without waiting
        itself."""
        self._native.dispatch()

    def describe(self, description: Description, *, aggregates: bool = False) -> None:
        """Says who reports. `aggregates`: on_message wants the messages of the session's chain."""
        self._native.perform(_calls.describe(description, aggregates), None, answer=False)

    def start(self) -> Reply[States]:
        """Has the daemon work out what reports; it may have to fetch its configuration for that."""
        return self._ask(_calls.start())

    def fetch_states(self, user_info: Mapping[str, Storable] | None = None) -> Reply[States]:
        """`user_info` takes the place of what was described before."""
        return self._ask(_calls.fetch_states(user_info))

    def fetch_display_url(self) -> Reply[str | None]:
        """Where people can look at the session; None where nowhere."""
        return self._ask(_calls.fetch_display_url())

    def send(
        self,
        category: int,
        type: int,
        payload: Mapping[str, Storable] | None = None,
        *,
        flag: int | None = None,
    ) -> Reply[Answer]:
        """Sends an event."""
        return self._ask(_calls.send(category, type, payload, flag))

    def report(
        self,
        category: int,
        type: int,
        payload: Mapping[str, Storable] | None = None,
        *,
        flag: int | None = None,
    ) -> None:
        """Sends an event, and wants to hear nothing of what becomes of it: cheaper than send()."""
        self._native.perform(_calls.send(category, type, payload, flag), None, answer=False)

    def send_single(
        self,
        description: Description,
        category: int,
        type: int,
        payload: Mapping[str, Storable] | None = None,
    ) -> Reply[Answer]:
        """Sends one event outside of what the session described."""
        return self._ask(_calls.send_single(description, category, type, payload))

    def flush(self) -> Reply[Flushed]:
        """Has events that wait in the daemon posted. The answer waits for servers."""
        return self._ask(_calls.flush())

    def finish(self) -> Reply[Answer]:
        """Tells the daemon that the session's activity has ended."""
        return self._ask(_calls.finish())

    def upload_file(self, path: str | os.PathLike[str]) -> Reply[Uploaded]:
        """The file is opened before this returns, and removed where the server confirmed it."""
        return self._ask(_calls.upload_file(path))

    def upload_log_data(self, log_data: Sequence[Storable]) -> Reply[Uploaded]:
        return self._ask(_calls.upload_log_data(log_data))

    def _ask(self, call: Call[T]) -> Reply[T]:
        reply: Reply[T] = Reply(self._native)
        self._native.perform(call, reply, answer=True)
        return reply


def close_forgotten(session: NativeSession) -> None:
    """Of a session that its program lost without closing it."""
    if not session.is_closed():
        warnings.warn("a corvid session was not closed", ResourceWarning, stacklevel=2)
        session.close()
