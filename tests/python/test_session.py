"""What a session asks, and what comes of it; before a test sink."""

from __future__ import annotations

import select
import threading
from collections.abc import Callable
from concurrent.futures import as_completed
from pathlib import Path
from typing import Any

import pytest
from conftest import PATIENCE, wait_until

import corvid
from corvid import Backend, Description, Disposition, ErrorCode, Failure, Reason, State, States
from corvid.testing import Operation, TestSink

SENDS = Backend("httpPost", State.SENDING, Reason("reporting"))
HOLDS = Backend("httpPost2", State.HELD, Reason("sampledOut"))
SILENT = Backend("dashboard", State.DISABLED, Reason("noConsent"))


def test_a_description_is_told_with_what_it_holds(session: corvid.Session, sink: TestSink) -> None:
    session.describe(
        Description(
            client_type=5,
            client_version=3,
            session_id=42,
            require_user_info=True,
            batch_event=False,
            client_name="Player",
            service_name="Evening Film",
            frameworks=["One", "Two"],
            session_info={"more": 1, "ClientType": 6},
            user_info={"_clientName": "other", "title": "x"},
        ),
        aggregates=True,
    )
    session.describe(Description(client_type=7))
    session.describe(Description(client_type=7, user_info={}))
    told, least, empty = sink.await_calls(3)
    assert told.operation is Operation.SET_SESSION_INFO
    assert told.session_info == {
        "more": 1,
        "ClientType": 5,
        "ClientVersion": 3,
        "SessionID": 42,
        "RequireUserInfo": True,
        "BatchEvent": False,
    }
    named = {"_clientName": "Player", "_serviceName": "Evening Film", "title": "x"}
    assert told.user_info == named
    assert told.array == ["One", "Two"]
    assert told.has_aggregation_block
    assert (least.session_info, least.user_info) == ({"ClientType": 7}, None)
    assert least.array == [] and not least.has_aggregation_block
    assert empty.user_info == {}


def test_each_operation_reaches_the_daemon_as_itself(
    session: corvid.Session, sink: TestSink, tmp_path: Path
) -> None:
    file = tmp_path / "a file"
    file.write_text("text")
    replies: list[corvid.Reply[Any]] = [
        session.start(),
        session.fetch_states({"a": 1}),
        session.fetch_display_url(),
        session.send(7, 2, {"b": 2}),
        session.send(8, 3, {"c": 3}, flag=1),
        session.send(8, 3, flag=0),
        session.flush(),
        session.upload_file(file),
        session.upload_log_data(["line", b"\0"]),
        session.send_single(Description(client_type=9), 65535, 0, {"d": 4}),
        session.finish(),
    ]
    for reply in as_completed(replies, PATIENCE):
        assert reply.exception() is None
    calls = sink.calls()
    assert [call.operation for call in calls] == [
        Operation.START_CONFIG,
        Operation.FETCH_STATES,
        Operation.FETCH_DISPLAY_URL,
        Operation.SEND_MESSAGE,
        Operation.SEND_MESSAGE_WITH_DICTIONARY,
        Operation.SEND_MESSAGE_WITH_DICTIONARY,
        Operation.FLUSH,
        Operation.UPLOAD_FILE,
        Operation.UPLOAD_LOG_DATA,
        Operation.SEND_SINGLE_MESSAGE,
        Operation.FINISH,
    ]
    assert calls[1].user_info == {"a": 1}
    assert (calls[3].category, calls[3].type, calls[3].payload) == (7, 2, {"b": 2})
    assert calls[4].message == {"Category": 8, "Type": 3, "Flag": 1, "Payload": {"c": 3}}
    assert calls[5].message == {"Category": 8, "Type": 3, "Flag": 0}
    assert calls[7].file_url == "file://" + str(file).replace(" ", "%20")
    assert calls[8].array == ["line", b"\0"]
    assert (calls[9].category, calls[9].type) == (65535, 0)
    assert calls[9].session_info == {"ClientType": 9}
    assert all(call.wants_answer for call in calls)


def test_a_report_wants_no_answer(session: corvid.Session, sink: TestSink) -> None:
    session.report(7, 2, {"b": 2})
    session.report(8, 3, flag=1)
    plain, flagged = sink.await_calls(2)
    assert (plain.category, plain.type, plain.payload) == (7, 2, {"b": 2})
    assert flagged.message == {"Category": 8, "Type": 3, "Flag": 1}
    assert not plain.wants_answer and not flagged.wants_answer


def test_answers_to_messages_say_who_took_them(session: corvid.Session, sink: TestSink) -> None:
    sink.answer(Operation.SEND_MESSAGE, times=1, reason="noConsent", text="dropped\u00e4")
    dropped = session.send(1, 1).result(PATIENCE)
    assert dropped.disposition is Disposition.DROPPED and not dropped.taken
    assert dropped.reason == "noConsent" and dropped.text == "droppedä"
    assert "not allowed" in (dropped.reason.text or "")
    taken = session.send(1, 1).result(PATIENCE)
    assert taken == corvid.Answer(Disposition.TAKEN, None, None) and taken.taken
    assert Reason("a word of tomorrow").text is None


def test_states_say_what_each_backend_does(session: corvid.Session, sink: TestSink) -> None:
    told = States((SILENT, SENDS, HOLDS), None, ())
    sink.answer(Operation.START_CONFIG, states=told)
    states = session.start().result(PATIENCE)
    assert states.backends == (SILENT, SENDS, HOLDS)
    assert states.reporting == ("httpPost", "httpPost2")
    assert states.reason is None
    assert states["dashboard"].state is State.DISABLED
    with pytest.raises(KeyError, match="metrix"):
        states["metrix"]
    none = session.fetch_states().result(PATIENCE)
    assert none == States((), Reason("notConfigured"), ())


def test_a_state_of_tomorrow_is_no_error(session: corvid.Session, sink: TestSink) -> None:
    other = Backend("httpPost", State.OTHER, Reason("why"))
    sink.answer(Operation.START_CONFIG, states=States((other,), None, ()))
    assert session.start().result(PATIENCE)["httpPost"].state is State.OTHER
    assert State("resting") is State.OTHER


def test_flushes_and_uploads_tell_the_error_of_the_daemon(
    session: corvid.Session, sink: TestSink
) -> None:
    failure = Failure(corvid.keys.DAEMON_ERROR_DOMAIN, -7, "no röom")
    sink.answer(Operation.FLUSH, times=1, text="log", failure=failure)
    sink.answer(Operation.UPLOAD_LOG_DATA, times=1, success=False, failure=failure)
    assert session.flush().result(PATIENCE) == corvid.Flushed("log", failure)
    assert session.flush().result(PATIENCE) == corvid.Flushed(None, None)
    failed = session.upload_log_data([]).result(PATIENCE)
    assert not failed and failed.failure == failure
    assert session.upload_log_data([]).result(PATIENCE)


@pytest.mark.parametrize("code", [code for code in ErrorCode if code != ErrorCode.OK])
def test_a_call_that_fails_raises_its_code(
    session: corvid.Session, sink: TestSink, code: ErrorCode
) -> None:
    sink.answer(Operation.SEND_MESSAGE, error=code)
    error = session.send(1, 1).exception(PATIENCE)
    assert isinstance(error, corvid.CorvidError)
    assert error.code is code and str(error)


def test_errors_are_of_classes_that_programs_know() -> None:
    of = corvid.errors.error_of
    assert isinstance(of(ErrorCode.NOT_CONNECTED), ConnectionError)
    assert isinstance(of(ErrorCode.CONNECTION_LOST), corvid.ConnectionLostError)
    assert isinstance(of(ErrorCode.CONNECTION_LOST), ConnectionError)
    assert isinstance(of(ErrorCode.TIMED_OUT), TimeoutError)
    assert isinstance(of(ErrorCode.TOO_LARGE), ValueError)
    tomorrow = of(99)
    assert type(tomorrow) is corvid.CorvidError
    assert tomorrow.code == 99 and str(tomorrow) == "unknown error"


def test_a_call_without_an_answer_raises_that(session: corvid.Session, sink: TestSink) -> None:
    sink.answer(Operation.SEND_MESSAGE, unanswered=True)
    with pytest.raises(corvid.UnansweredError, match="gives no answer"):
        session.send(1, 1).result(PATIENCE)


def test_an_answer_that_does_not_come_in_time_is_an_error(sink: TestSink) -> None:
    sink.answer(Operation.SEND_MESSAGE, withheld=True)
    with corvid.Session(test_sink=sink, answer_deadline=0.01) as session:
        with pytest.raises(corvid.TimedOutError):
            session.send(1, 1).result(PATIENCE)


def test_what_an_absent_daemon_was_to_be_told_is_told_later(
    session: corvid.Session, sink: TestSink
) -> None:
    sink.set_reachable(False)
    refused: list[Callable[[], object]] = [
        lambda: session.describe(Description(client_type=5)),
        session.start,
        session.connect,
        lambda: session.report(1, 1),
    ]
    for call in refused:
        with pytest.raises(corvid.NotConnectedError):
            call()
    sink.set_reachable(True)
    session.connect()
    remembered = [Operation.SET_SESSION_INFO, Operation.START_CONFIG]
    assert [call.operation for call in sink.await_calls(2)] == remembered


def test_arguments_that_the_library_cannot_take_are_refused(
    session: corvid.Session, sink: TestSink
) -> None:
    for number in (-1, 65536):
        with pytest.raises(OverflowError, match="category"):
            session.send(number, 1)
        with pytest.raises(OverflowError, match="type"):
            session.report(1, number)
        with pytest.raises(OverflowError, match="type"):
            session.send(1, number, flag=1)
    for other in (True, 1.0, "1", None):
        with pytest.raises(TypeError, match="category: an int is wanted"):
            session.send(other, 1)  # type: ignore[arg-type]
    with pytest.raises(TypeError, match="^user_info: a dictionary is wanted"):
        session.describe(Description(client_type=5, user_info=[1]))  # type: ignore[arg-type]
    with pytest.raises(ValueError, match="zero character"):
        session.upload_file("a\0b")
    with pytest.raises(corvid.TooLargeError):
        session.describe(Description(client_type=5, user_info={"long": "x" * 300000}))
    for seconds in (-1, 2**32 / 1000):
        with pytest.raises(OverflowError, match="deadline"):
            corvid.Session(deadline=seconds)
        with pytest.raises(OverflowError, match="answer_deadline"):
            corvid.Session(answer_deadline=seconds)
    session.send(1, 1).result(PATIENCE)
    assert len(sink.calls()) == 1, "nothing of them has reached the daemon"


def test_handlers_are_told_of_the_connection_the_states_and_deliveries(sink: TestSink) -> None:
    told: list[object] = []
    with corvid.Session(
        test_sink=sink,
        deadline=PATIENCE,
        on_message=told.append,
        on_states_changed=told.append,
        on_connected=lambda: told.append("connected"),
        on_reconnected=lambda: told.append("reconnected"),
        on_invalidated=lambda: told.append("invalidated"),
    ) as session:
        session.send(1, 1).result(PATIENCE)
        sink.change_states(States((SENDS,), None, ()))
        sink.deliver({"SessionID": 3}, 2.5, 7, 1, {"a": [1]})
        sink.deliver()
        assert wait_until(lambda: len(told) == 4)
        sink.disconnect()
        assert wait_until(lambda: told[-1] == "invalidated")
        session.send(1, 1).result(PATIENCE)
    assert told[0] == "connected"
    assert told[1] == States((SENDS,), None, ("httpPost",))
    delivered, shutdown = told[2], told[3]
    assert delivered == corvid.Delivery({"SessionID": 3}, 2.5, 7, 1, {"a": [1]})
    assert isinstance(delivered, corvid.Delivery) and not delivered.is_shutdown
    assert isinstance(shutdown, corvid.Delivery) and shutdown.is_shutdown
    assert told[5:] == ["connected", "reconnected"]


def test_handlers_and_replies_run_on_one_other_thread(sink: TestSink) -> None:
    threads: set[int] = set()
    with corvid.Session(
        test_sink=sink,
        deadline=PATIENCE,
        on_connected=lambda: threads.add(threading.get_ident()),
    ) as session:
        for _ in range(5):
            reply = session.send(1, 1)
            reply.add_done_callback(lambda _: threads.add(threading.get_ident()))
    assert len(threads - {threading.get_ident()}) == 1
    # A reply that is there already when it is asked tells at once.
    assert len(threads) <= 2


def test_a_handler_may_use_its_session(sink: TestSink) -> None:
    replies: list[corvid.Reply[corvid.Answer]] = []
    with corvid.Session(
        test_sink=sink,
        deadline=PATIENCE,
        on_connected=lambda: replies.append(session.send(2, 2)),
    ) as session:
        session.send(1, 1).result(PATIENCE)
        assert wait_until(lambda: replies)
        assert replies[0].result(PATIENCE).taken


def test_in_an_event_loop_everything_runs_in_dispatch(sink: TestSink) -> None:
    told: list[int] = []
    with corvid.Session(
        test_sink=sink,
        dispatch=True,
        on_connected=lambda: told.append(threading.get_ident()),
    ) as session:
        reply = session.send(1, 1)
        reply.add_done_callback(lambda _: told.append(threading.get_ident()))
        sink.await_calls(1)
        poll = select.poll()
        poll.register(session, select.POLLIN)
        assert not told and not reply.done(), "nothing runs by itself"
        while not reply.done():
            assert poll.poll(PATIENCE * 1000)
            session.dispatch()
        assert told == [threading.get_ident()] * 2
        assert not poll.poll(0)


def test_without_that_option_there_is_no_descriptor(session: corvid.Session) -> None:
    with pytest.raises(corvid.CorvidError) as raised:
        session.fileno()
    assert raised.value.code is ErrorCode.INVALID_ARGUMENT
    with pytest.raises(corvid.CorvidError) as raised:
        session.dispatch()
    assert raised.value.code is ErrorCode.INVALID_ARGUMENT


def test_many_threads_may_use_a_session(session: corvid.Session, sink: TestSink) -> None:
    def work(thread: int) -> None:
        replies = [session.send(1, thread, {"n": n}) for n in range(50)]
        assert all(reply.result(PATIENCE).taken for reply in replies)

    threads = [threading.Thread(target=work, args=(n,)) for n in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    calls = sink.calls()
    assert len(calls) == 400
    for thread_number in range(8):
        own = [call.payload for call in calls if call.type == thread_number]
        assert own == [{"n": n} for n in range(50)], "in the order in which they were made"


def test_a_full_queue_refuses_and_goes_on(sink: TestSink) -> None:
    hold, entered = threading.Event(), threading.Event()

    def wait() -> None:
        entered.set()
        hold.wait(PATIENCE)

    with corvid.Session(test_sink=sink, deadline=0, on_connected=wait) as session:
        session.connect()
        assert entered.wait(PATIENCE)
        try:
            with pytest.raises(corvid.QueueFullError):
                for _ in range(100000):
                    session.report(1, 1)
        finally:
            hold.set()
        first = len(sink.await_calls(4096))
        session.send(2, 2).result(PATIENCE)
        assert first >= 4096
