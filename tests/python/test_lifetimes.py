"""Ends: of sessions, of processes, and of what handlers raise."""

from __future__ import annotations

import gc
import logging
import os
import signal
import sys
import threading
import weakref
from typing import Any

import pytest
from conftest import PATIENCE, run_python, wait_until

import corvid
from corvid import Description, _native
from corvid.testing import Operation, TestSink


@pytest.fixture(autouse=True)
def nothing_is_left() -> Any:
    """Whatever a test does, the library has no call and no session left that could call back."""
    yield
    assert wait_until(lambda: not _native._sessions and not _native._calls)


def test_closing_answers_what_was_accepted(sink: TestSink) -> None:
    with corvid.Session(test_sink=sink, deadline=PATIENCE) as session:
        replies = [session.send(1, 1) for _ in range(100)]
    assert all(reply.result(0).taken for reply in replies)


def test_what_is_under_way_after_the_deadline_ends_as_closed(sink: TestSink) -> None:
    sink.answer(Operation.SEND_MESSAGE, withheld=True)
    with corvid.Session(test_sink=sink) as session:
        reply = session.send(1, 1)
        sink.await_calls(1)
    with pytest.raises(corvid.ClosedError):
        reply.result(0)


def test_a_refused_call_leaves_nothing(sink: TestSink) -> None:
    sink.set_reachable(False)
    with corvid.Session(test_sink=sink) as session:
        with pytest.raises(corvid.NotConnectedError):
            session.send(1, 1)
        assert not _native._calls


def test_a_call_that_is_interrupted_as_it_is_accepted_is_let_go(
    sink: TestSink, monkeypatch: pytest.MonkeyPatch
) -> None:
    seen: list[Any] = []
    monkeypatch.setattr(sys, "unraisablehook", seen.append)
    made = _native.check

    def interrupt(code: int) -> None:
        monkeypatch.setattr(_native, "check", made)
        raise KeyboardInterrupt

    hold = threading.Event()
    with corvid.Session(
        test_sink=sink, deadline=PATIENCE, on_connected=lambda: hold.wait(PATIENCE)
    ) as session:
        monkeypatch.setattr(_native, "check", interrupt)
        with pytest.raises(KeyboardInterrupt):
            session.send(1, 1)
        hold.set()
        assert session.send(2, 1).result(PATIENCE).taken
    assert [call.category for call in sink.calls()] == [1, 2]
    assert not seen


def test_a_closed_session_refuses_everything(sink: TestSink) -> None:
    session = corvid.Session(test_sink=sink, dispatch=True)
    session.close()
    session.close()
    for call in (session.start, session.connect, session.dispatch, session.fileno):
        with pytest.raises(corvid.ClosedError):
            call()
    with pytest.raises(corvid.ClosedError):
        session.describe(Description(client_type=5))
    assert not sink.calls()


def test_closing_returns_when_the_last_handler_has_run(sink: TestSink) -> None:
    told: list[object] = []
    with corvid.Session(test_sink=sink, on_message=told.append) as session:
        session.send(1, 1).result(PATIENCE)
        for _ in range(2000):
            sink.deliver({"a": 1})
        assert wait_until(lambda: told)
    assert not _native._sessions, "the library has said that it calls back no more"


def test_a_handler_may_close_its_session(sink: TestSink) -> None:
    closed = threading.Event()

    def close() -> None:
        session.close()
        closed.set()

    session = corvid.Session(test_sink=sink, on_connected=close)
    session.connect()
    assert closed.wait(PATIENCE)
    with pytest.raises(corvid.ClosedError):
        session.connect()


def test_a_handler_may_close_its_session_in_dispatch(sink: TestSink) -> None:
    session = corvid.Session(test_sink=sink, dispatch=True, on_connected=lambda: session.close())
    reply = session.send(1, 1)
    while not reply.done():
        session.dispatch()
    assert reply.done()


def test_threads_that_use_a_closing_session_are_refused(sink: TestSink) -> None:
    for _ in range(30):
        session = corvid.Session(test_sink=sink)
        started = threading.Barrier(5)

        def work() -> None:
            started.wait()
            try:
                while True:
                    session.report(1, 1)
            except corvid.ClosedError:
                pass
            except corvid.QueueFullError:
                pass

        threads = [threading.Thread(target=work) for _ in range(4)]
        for thread in threads:
            thread.start()
        started.wait()
        session.close()
        for thread in threads:
            thread.join(PATIENCE)
            assert not thread.is_alive()


def test_a_session_is_not_destroyed_while_another_thread_is_in_the_library(sink: TestSink) -> None:
    session = corvid.Session(test_sink=sink)
    closing = threading.Thread(target=session.close)
    with session._native._using():
        closing.start()
        assert wait_until(session._native.is_closed)
        closing.join(0.05)
        assert closing.is_alive()
        assert _native._sessions
    closing.join(PATIENCE)
    assert not _native._sessions


def test_a_signal_handler_may_close_the_session_amid_a_call(sink: TestSink) -> None:
    session = corvid.Session(test_sink=sink)
    before = signal.signal(signal.SIGUSR1, lambda *_: session.close())
    try:
        with session._native._using():
            os.kill(os.getpid(), signal.SIGUSR1)
            assert session._native.is_closed()
            assert _native._sessions, "not before the call is over"
    finally:
        signal.signal(signal.SIGUSR1, before)
    assert not _native._sessions


def test_a_callback_that_waits_for_its_own_session_is_told_so(sink: TestSink) -> None:
    raised: list[BaseException] = []

    def wait() -> None:
        for wait_for in (session.send(1, 1).result, session.send(1, 1).exception):
            try:
                wait_for()
            except RuntimeError as error:
                raised.append(error)

    with corvid.Session(test_sink=sink, on_connected=wait) as session:
        session.connect()
        assert wait_until(lambda: len(raised) == 2)
    assert "waits for an answer of the same session" in str(raised[0])


def test_a_reply_cannot_be_cancelled(sink: TestSink) -> None:
    sink.answer(Operation.SEND_MESSAGE, times=1, withheld=True)
    with corvid.Session(test_sink=sink) as session:
        assert not session.send(1, 1).cancel()


def test_what_a_handler_raises_is_seen_and_the_session_goes_on(
    sink: TestSink, monkeypatch: pytest.MonkeyPatch
) -> None:
    seen: list[Any] = []
    monkeypatch.setattr(sys, "unraisablehook", lambda told: seen.append(told.exc_value))

    def fail(*_: object) -> None:
        raise LookupError("mine")

    with corvid.Session(
        test_sink=sink, deadline=PATIENCE, on_connected=fail, on_message=fail
    ) as session:
        assert session.send(1, 1).result(PATIENCE).taken
        sink.deliver()
        assert session.send(1, 1).result(PATIENCE).taken
        assert wait_until(lambda: len(seen) == 2)
    assert [repr(error) for error in seen] == ["LookupError('mine')"] * 2


def test_what_a_function_of_a_reply_raises_is_logged(
    sink: TestSink, caplog: pytest.LogCaptureFixture
) -> None:
    hold = threading.Event()
    with caplog.at_level(logging.ERROR, "concurrent.futures"):
        with corvid.Session(
            test_sink=sink, deadline=PATIENCE, on_connected=lambda: hold.wait(PATIENCE)
        ) as session:
            reply = session.send(1, 1)
            reply.add_done_callback(lambda _: 1 / 0)
            hold.set()
            assert reply.result(PATIENCE).taken
    assert "ZeroDivisionError" in caplog.text


def test_an_answer_that_cannot_be_read_is_raised_by_its_reply(
    session: corvid.Session, monkeypatch: pytest.MonkeyPatch
) -> None:
    def fail(*_: object) -> None:
        raise MemoryError("no room")

    monkeypatch.setattr("corvid.results.flushed", fail)
    with pytest.raises(MemoryError, match="no room"):
        session.flush().result(PATIENCE)
    session.close()


def test_a_session_keeps_its_sink_and_its_handlers() -> None:
    told = threading.Event()
    sink = TestSink()
    there = weakref.ref(sink)
    session = corvid.Session(test_sink=sink, on_connected=lambda: told.set())
    del sink
    gc.collect()
    assert there() is not None
    session.connect()
    assert told.wait(PATIENCE)
    session.close()
    del session
    gc.collect()
    assert there() is None, "and no longer than it must"


def test_a_reply_comes_though_nobody_keeps_it(sink: TestSink) -> None:
    told = threading.Event()
    with corvid.Session(test_sink=sink, deadline=PATIENCE) as session:
        session.send(1, 1).add_done_callback(lambda _: told.set())
        gc.collect()
    assert told.is_set()


def test_a_forgotten_session_is_closed_with_a_warning(sink: TestSink) -> None:
    session = corvid.Session(test_sink=sink)
    session.connect()
    with pytest.warns(ResourceWarning, match="a corvid session was not closed"):
        del session
        gc.collect()
    assert not _native._sessions


def test_a_session_that_could_not_be_made_leaves_nothing(
    sink: TestSink, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(
        _native.lib, "corvid_session_create", lambda *_: int(corvid.ErrorCode.SYSTEM)
    )
    with pytest.raises(corvid.CorvidError) as raised:
        corvid.Session(test_sink=sink)
    assert raised.value.code is corvid.ErrorCode.SYSTEM


OPEN_AT_THE_END = """
import atexit, sys, time
atexit.register(lambda: print(len(sink.calls()), len(corvid._native._sessions)))  # after corvid's
import corvid
from corvid.testing import TestSink
sink = TestSink()
session = corvid.Session(test_sink=sink, deadline=10, on_message=lambda _: time.sleep(0.001))
session.send(1, 1).result(10)
for _ in range(200):  # more than there is time for
    sink.deliver()
for _ in range(999):
    session.report(1, 1)
if sys.argv[1] == "closing":
    other = corvid.Session(test_sink=TestSink(), on_connected=lambda: other.close())
    other.connect()
"""


@pytest.mark.parametrize("end", ["open", "closing"])
def test_sessions_that_are_open_at_the_end_of_the_process_are_closed(end: str) -> None:
    ended = run_python(OPEN_AT_THE_END, end)
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "1000 0\n", "")


FORKS = """
import os, sys, threading, corvid
from corvid import _native
from corvid.testing import TestSink, Operation
sink = TestSink()
sink.answer(Operation.FLUSH, withheld=True)
session = corvid.Session(test_sink=sink)
session.send(1, 1).result(10)
flush = session.flush()
# While another thread is in the library, which the child would wait for.
entered, leave = threading.Event(), threading.Event()

def stay():
    with session._native._using():
        entered.set()
        leave.wait(10)

thread = threading.Thread(target=stay)
thread.start()
entered.wait(10)
child = os.fork()
if child == 0:
    assert not _native._sessions and not _native._calls
    for call in (session.start, session.connect, flush.result, lambda: session.report(1, 1)):
        try:
            call()
            print("allowed")
        except corvid.ForkedError as error:
            assert error.code == corvid.ErrorCode.FORKED
    session.close()
    with corvid.Session(test_sink=TestSink(), deadline=10) as own:
        print(own.send(1, 1).result(10).taken)
    sys.exit(7)  # with all that an interpreter does at its end
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
leave.set()
thread.join()
print(session.send(1, 1).result(10).taken)
"""


def test_a_child_process_is_refused_and_the_parent_goes_on() -> None:
    ended = run_python(FORKS)
    assert (ended.stdout, ended.stderr) == ("True\n7\nTrue\n", "")
