"""The test sink, as tests of applications use it."""

from __future__ import annotations

import gc
import threading
from typing import Any

import pytest
from conftest import PATIENCE

import corvid
from corvid import Backend, ErrorCode, Failure, Reason, State, States, testing
from corvid.testing import Operation, TestSink


def test_one_sink_serves_several_sessions(sink: TestSink) -> None:
    with corvid.Session(test_sink=sink) as one, corvid.Session(test_sink=sink) as other:
        one.send(1, 1).result(PATIENCE)
        other.send(2, 1).result(PATIENCE)
    assert [call.category for call in sink.calls()] == [1, 2]


def test_answers_come_in_the_order_in_which_they_were_planned(
    session: corvid.Session, sink: TestSink
) -> None:
    sink.answer(Operation.SEND_MESSAGE, times=2, reason="first")
    sink.answer(Operation.SEND_MESSAGE, times=1, error=ErrorCode.NOT_SUPPORTED)
    sink.answer(Operation.SEND_MESSAGE, text="always")
    reasons = [session.send(1, 1).result(PATIENCE).reason for _ in range(2)]
    assert reasons == ["first", "first"]
    with pytest.raises(corvid.CorvidError) as raised:
        session.send(1, 1).result(PATIENCE)
    assert raised.value.code is ErrorCode.NOT_SUPPORTED
    assert [session.send(1, 1).result(PATIENCE).text for _ in range(2)] == ["always", "always"]


def test_calls_are_not_forgotten_while_they_are_read(
    session: corvid.Session, sink: TestSink, monkeypatch: pytest.MonkeyPatch
) -> None:
    session.report(1, 1, {"a": "b"})
    sink.await_calls(1)
    forgetting = threading.Thread(target=sink.clear)
    read = testing.from_dictionary

    def read_late(pointer: Any) -> Any:
        if forgetting.ident is None:
            forgetting.start()
            forgetting.join(0.05)
            assert forgetting.is_alive()
        return read(pointer)

    monkeypatch.setattr(testing, "from_dictionary", read_late)
    assert sink.calls()[0].payload == {"a": "b"}
    forgetting.join(PATIENCE)
    assert not sink.calls()


def test_calls_that_do_not_come_are_an_error(session: corvid.Session, sink: TestSink) -> None:
    session.report(1, 1)
    assert len(sink.await_calls(1)) == 1
    with pytest.raises(TimeoutError, match="^1 of 2 calls came"):
        sink.await_calls(2, timeout=0.01)


def test_calls_outlive_the_sink(session: corvid.Session) -> None:
    sink = TestSink()
    with corvid.Session(test_sink=sink, deadline=PATIENCE) as other:
        other.send(1, 1, {"a": ["b"]}).result(PATIENCE)
    calls = sink.calls()
    del sink, other
    gc.collect()
    assert calls[0].payload == {"a": ["b"]}


@pytest.mark.parametrize("bad, error", [("\ud800", "surrogates"), ("a\0b", "zero character")])
def test_words_that_cannot_be_told_are_refused(sink: TestSink, bad: str, error: str) -> None:
    with pytest.raises(ValueError, match=f"reason: .*{error}"):
        sink.answer(Operation.SEND_MESSAGE, reason=bad)
    with pytest.raises(ValueError, match=f"domain: .*{error}"):
        sink.answer(Operation.FLUSH, failure=Failure(bad, 1, ""))
    backend = Backend("httpPost", State.SENDING, Reason(bad))
    with pytest.raises(ValueError, match=f"states: .*{error}"):
        sink.change_states(States((backend,), None, ()))


def test_numbers_that_the_library_cannot_take_are_refused(sink: TestSink) -> None:
    with pytest.raises(OverflowError, match="category"):
        sink.deliver(category=70000)
    with pytest.raises(OverflowError, match="times"):
        sink.answer(Operation.FLUSH, times=-1)
    with pytest.raises(OverflowError, match="timeout"):
        sink.await_calls(1, timeout=-1)


def test_pytest_takes_the_sink_for_no_test() -> None:
    assert TestSink.__test__ is False
