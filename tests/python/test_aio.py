"""A session in an event loop."""

from __future__ import annotations

import asyncio
import gc
import threading
from collections.abc import Callable, Coroutine
from typing import Any

import pytest
from conftest import PATIENCE

import corvid
from corvid import Backend, Description, Reason, State, States, _native, aio
from corvid.testing import Operation, TestSink

SENDS = Backend("httpPost", State.SENDING, Reason("reporting"))
SILENT = Backend("httpPost", State.DISABLED, Reason("noConsent"))


def run(test: Callable[[], Coroutine[Any, Any, None]]) -> None:
    """With what asyncio finds fault with as a failure, and with nothing left behind."""
    faults: list[dict[str, Any]] = []

    async def bounded() -> None:
        loop = asyncio.get_running_loop()
        loop.set_exception_handler(lambda _, context: faults.append(context))
        async with asyncio.timeout(PATIENCE):
            await test()
        gc.collect()
        await asyncio.sleep(0)  # a future that nobody has asked says so

    asyncio.run(bounded())
    assert not faults
    assert not _native._sessions and not _native._calls


def test_every_call_can_be_awaited(sink: TestSink, tmp_path: Any) -> None:
    (tmp_path / "file").write_text("text")

    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            session.describe(Description(client_type=5), aggregates=True)
            assert (await session.start()).reason == "notConfigured"
            assert (await session.fetch_states({"a": 1})).reason == "notConfigured"
            assert await session.fetch_display_url() is None
            assert (await session.send(7, 2, {"a": 1})).taken
            assert (await session.send(7, 2, flag=1)).taken
            session.report(7, 3)
            assert (await session.send_single(Description(client_type=9), 1, 1)).taken
            assert await session.flush() == corvid.Flushed(None, None)
            assert await session.upload_file(tmp_path / "file")
            assert await session.upload_log_data(["line"])
            assert (await session.finish()).taken
            descriptor = session._native.fileno()
        assert not asyncio.get_running_loop().remove_reader(descriptor), "closing has done so"
        assert [call.operation for call in sink.calls()] == [
            Operation.SET_SESSION_INFO,
            Operation.START_CONFIG,
            Operation.FETCH_STATES,
            Operation.FETCH_DISPLAY_URL,
            Operation.SEND_MESSAGE,
            Operation.SEND_MESSAGE_WITH_DICTIONARY,
            Operation.SEND_MESSAGE,
            Operation.SEND_SINGLE_MESSAGE,
            Operation.FLUSH,
            Operation.UPLOAD_FILE,
            Operation.UPLOAD_LOG_DATA,
            Operation.FINISH,
        ]
        assert sink.calls()[0].has_aggregation_block

    run(test)


def test_calls_may_be_under_way_together(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            answers = await asyncio.gather(*(session.send(1, n) for n in range(500)))
        assert all(answer.taken for answer in answers)
        assert [call.type for call in sink.calls()] == list(range(500))

    run(test)


def test_refusals_and_failures_are_raised_where_the_call_is_awaited(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            sink.set_reachable(False)
            with pytest.raises(corvid.NotConnectedError):
                await session.send(1, 1)
            with pytest.raises(corvid.NotConnectedError):
                session.report(1, 1)
            sink.set_reachable(True)
            sink.answer(Operation.SEND_MESSAGE, error=corvid.ErrorCode.NOT_SUPPORTED)
            with pytest.raises(corvid.CorvidError) as raised:
                await session.send(1, 1)
            assert raised.value.code is corvid.ErrorCode.NOT_SUPPORTED
        with pytest.raises(corvid.ClosedError):
            await session.send(1, 1)

    run(test)


def test_a_call_that_is_cancelled_leaves_nothing_behind(sink: TestSink) -> None:
    async def test() -> None:
        sink.answer(Operation.FLUSH, times=1, withheld=True)
        async with aio.Session(test_sink=sink, answer_deadline=0.2) as session:
            with pytest.raises(TimeoutError):
                async with asyncio.timeout(0.01):
                    await session.flush()
            assert len(_native._calls) == 1, "the call itself goes on"
            # Cancelled before the answer, which comes.
            sending = asyncio.ensure_future(session.send(1, 1))
            await asyncio.sleep(0)
            assert len(_native._calls) == 2
            sending.cancel()
            with pytest.raises(asyncio.CancelledError):
                await sending
            while _native._calls:
                await asyncio.sleep(0.01)
            assert (await session.send(1, 1)).taken

    run(test)


def test_a_cancelled_close_closes_all_the_same(sink: TestSink) -> None:
    async def test() -> None:
        sink.answer(Operation.SEND_MESSAGE, withheld=True)
        session = aio.Session(test_sink=sink, deadline=PATIENCE)
        sending = asyncio.ensure_future(session.send(1, 1))
        await asyncio.to_thread(sink.await_calls, 1)
        closing = asyncio.ensure_future(session.close())
        await asyncio.sleep(0)
        closing.cancel()
        with pytest.raises(asyncio.CancelledError):
            await closing
        with pytest.raises(corvid.ClosedError):
            await sending
        await session.close()

    run(test)


def test_closing_answers_what_was_accepted_while_the_loop_goes_on(sink: TestSink) -> None:
    async def test() -> None:
        turns = 0
        async with aio.Session(test_sink=sink, deadline=PATIENCE) as session:
            for n in range(300):
                session.report(1, n)
            sending = asyncio.ensure_future(session.send(1, 300))
            await asyncio.sleep(0)

            async def turn() -> None:
                nonlocal turns
                while not sending.done():
                    turns += 1
                    await asyncio.sleep(0)

            turning = asyncio.ensure_future(turn())
        await turning
        assert sending.result().taken
        assert turns > 0
        assert len(sink.calls()) == 301, "reports too"

    run(test)


def test_what_is_withheld_ends_as_closed_at_the_deadline(sink: TestSink) -> None:
    async def test() -> None:
        sink.answer(Operation.SEND_MESSAGE, withheld=True)
        async with aio.Session(test_sink=sink, deadline=0.01) as session:
            sending = asyncio.ensure_future(session.send(1, 1))
            await asyncio.to_thread(sink.await_calls, 1)
        with pytest.raises(corvid.ClosedError):
            await sending

    run(test)


def test_messages_are_iterated_until_the_session_is_closed(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            messages = session.messages()
            session.describe(Description(client_type=5), aggregates=True)
            await session.start()
            for n in range(3):
                sink.deliver({"SessionID": 3}, n, 7, 1, {"n": n})
            first = await anext(messages)
            assert first == corvid.Delivery({"SessionID": 3}, 0, 7, 1, {"n": 0})

            async def rest() -> list[object]:
                return [message.payload async for message in messages]

            reading = asyncio.ensure_future(rest())
            await session.send(1, 1)
        assert await reading == [{"n": 1}, {"n": 2}]
        assert [each async for each in session.messages()] == [], "nothing comes any more"

    run(test)


def test_a_slow_reader_is_told_how_much_it_lost(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            messages = session.messages(limit=2)
            await session.start()
            for n in range(5):
                sink.deliver(payload={"n": n})
            await session.send(1, 1)
            while messages.lost < 3:
                await asyncio.sleep(0.01)
            assert [(await anext(messages)).payload for _ in range(2)] == [{"n": 3}, {"n": 4}]

    run(test)


def test_a_reader_who_is_cancelled_loses_nothing(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            messages = session.messages()
            await session.start()
            reading = asyncio.ensure_future(anext(messages))
            await asyncio.sleep(0)
            reading.cancel()
            sink.deliver(payload={"n": 1})
            assert (await anext(messages)).payload == {"n": 1}
            assert reading.cancelled()

    run(test)


def test_changes_of_states_are_iterated_as_they_are_in_the_end(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            changes = session.states_changes()
            await session.start()
            sink.change_states(States((SENDS,), None, ()))
            assert (await anext(changes)).reporting == ("httpPost",)
            for backend in (SENDS, SILENT):
                sink.change_states(States((backend,), None, ()))
            while changes.lost == 0:
                await asyncio.sleep(0.01)
            assert (await anext(changes)).backends == (SILENT,)

    run(test)


def test_everything_runs_in_the_loop(sink: TestSink) -> None:
    async def test() -> None:
        threads: list[int] = []
        note: Callable[[], None] = lambda: threads.append(threading.get_ident())  # noqa: E731
        async with aio.Session(
            test_sink=sink, on_connected=note, on_reconnected=note, on_invalidated=note
        ) as session:
            await session.send(1, 1)
            sink.disconnect()
            while len(threads) < 2:
                await asyncio.sleep(0.01)
            await session.send(1, 1)
        assert threads == [threading.get_ident()] * 4

    run(test)


def test_what_a_handler_raises_goes_to_the_loop(sink: TestSink) -> None:
    async def test() -> None:
        seen: list[dict[str, Any]] = []
        loop = asyncio.get_running_loop()
        before = loop.get_exception_handler()
        loop.set_exception_handler(lambda _, context: seen.append(context))
        async with aio.Session(test_sink=sink, on_connected=lambda: 1 / 0) as session:
            assert (await session.send(1, 1)).taken
        loop.set_exception_handler(before)
        assert [type(context["exception"]) for context in seen] == [ZeroDivisionError]

    run(test)


def test_a_forgotten_session_is_closed_with_a_warning(sink: TestSink) -> None:
    async def test() -> None:
        session = aio.Session(test_sink=sink)
        await session.send(1, 1)
        with pytest.warns(ResourceWarning, match="a corvid session was not closed"):
            del session
            gc.collect()
        while _native._sessions:
            await asyncio.sleep(0)

    run(test)


def test_a_session_is_of_its_loop_only(sink: TestSink) -> None:
    async def test() -> None:
        async with aio.Session(test_sink=sink) as session:
            with pytest.raises(RuntimeError, match="no running event loop"):
                await asyncio.to_thread(session.report, 1, 1)
            with pytest.raises(RuntimeError, match="outside of its event loop"):
                await asyncio.to_thread(asyncio.run, session.send(1, 1))
        assert not sink.calls()

    run(test)


def test_without_a_loop_there_is_no_session(sink: TestSink) -> None:
    with pytest.raises(RuntimeError, match="no running event loop"):
        aio.Session(test_sink=sink)
    assert not _native._sessions
