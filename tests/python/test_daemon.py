"""Before the real daemon and the servers of the lab."""

from __future__ import annotations

import asyncio
import subprocess
import sys
from pathlib import Path

import pytest
from conftest import PATIENCE, Lab, wait_until

import corvid
from corvid import Description, State, aio

EXAMPLE = Path(__file__).parents[2] / "examples/python_client.py"
PLAYER = Description(
    client_type=5,
    session_id=42,
    require_user_info=True,
    client_name="Player",
    service_name="Evening Film",
)


def test_an_event_goes_from_a_session_to_the_collector(lab: Lab) -> None:
    lab.start_daemon()
    with corvid.Session(root=lab.root, deadline=PATIENCE) as session:
        session.describe(PLAYER)
        states = session.start().result(PATIENCE)
        assert states.reporting == ("httpPost",)
        assert states["httpPost"] == corvid.Backend(
            "httpPost", State.SENDING, corvid.Reason("reporting")
        )
        answer = session.send(7, 2, {"mark": "zero\0inside", "n": 2**53}).result(PATIENCE)
        assert answer.taken
        session.report(7, 3, {"mark": "reported"})
        assert session.flush().result(PATIENCE).failure is None
    assert wait_until(lambda: len(lab.received("mark")) == 2)
    assert lab.received("mark") == ["zero\0inside", "reported"]
    assert 2**53 in lab.received("n")


def test_an_event_goes_from_an_event_loop_to_the_collector(lab: Lab) -> None:
    lab.start_daemon()

    async def report() -> None:
        async with aio.Session(root=lab.root, deadline=PATIENCE) as session:
            changes = session.states_changes()
            session.describe(PLAYER)
            assert (await session.start()).reporting == ("httpPost",)
            answers = await asyncio.gather(
                *(session.send(7, 2, {"mark": f"event {n}"}) for n in range(20))
            )
            assert all(answer.taken for answer in answers)
            assert (await session.flush()).failure is None
        assert [change async for change in changes] == []

    asyncio.run(asyncio.wait_for(report(), PATIENCE))
    assert wait_until(lambda: len(lab.received("mark")) == 20)
    assert lab.received("mark") == [f"event {n}" for n in range(20)]


def test_a_session_is_told_what_is_missing(lab: Lab) -> None:
    lab.start_daemon()
    with corvid.Session(root=lab.root, deadline=PATIENCE) as session:
        assert session.send(1, 1).result(PATIENCE).reason == "noSessionInfo"
        session.describe(Description(client_type=99))
        states = session.start().result(PATIENCE)
        assert (states.backends, states.reason) == ((), "unknownClientType")


def test_what_an_absent_daemon_was_told_holds_when_it_comes_and_after_it_went(lab: Lab) -> None:
    told: list[object] = []
    with corvid.Session(
        root=lab.root,
        deadline=PATIENCE,
        on_connected=lambda: told.append("connected"),
        on_reconnected=lambda: told.append("reconnected"),
        on_invalidated=lambda: told.append("invalidated"),
        on_states_changed=lambda states: told.append(states.reporting),
    ) as session:
        with pytest.raises(corvid.NotConnectedError):
            session.describe(PLAYER)
        with pytest.raises(corvid.NotConnectedError):
            session.start()
        lab.start_daemon()
        assert session.send(7, 2, {"mark": "first"}).result(PATIENCE).taken
        lab.stop_daemon()
        assert wait_until(lambda: "invalidated" in told)
        lab.start_daemon()
        assert session.send(7, 2, {"mark": "second"}).result(PATIENCE).taken
        assert wait_until(lambda: "reconnected" in told)
        session.flush().result(PATIENCE)
    assert told.count("connected") == 2
    assert wait_until(lambda: "second" in lab.received("mark"))


def test_a_file_is_uploaded_and_removed(lab: Lab, tmp_path: Path) -> None:
    lab.start_daemon()
    file = tmp_path / "call log.txt"
    file.write_text("12:00 call begins\n")
    with corvid.Session(root=lab.root, deadline=PATIENCE) as session:
        session.describe(Description(client_type=16, session_id=44))
        session.start()
        uploaded = session.upload_file(file).result(PATIENCE)
    assert uploaded == corvid.Uploaded(True, None)
    assert not file.exists()


def test_messages_of_a_chain_are_delivered_to_the_session_that_aggregates(lab: Lab) -> None:
    lab.start_daemon()

    async def aggregate() -> None:
        async with aio.Session(root=lab.root, deadline=PATIENCE) as session:
            messages = session.messages()
            session.describe(PLAYER, aggregates=True)
            await session.start()
            await session.send(7, 2, {"mark": "own"})
            begins = await anext(messages)
            assert (begins.category, begins.type) == (0, 0) and not begins.is_shutdown
            delivery = await anext(messages)
            assert (delivery.category, delivery.type) == (7, 2)
            assert delivery.payload is not None and delivery.payload["mark"] == "own"
            assert delivery.payload["_clientName"] == "Player"
            assert delivery.message is not None and delivery.message["SessionID"] == 42
            assert delivery.timestamp > begins.timestamp > 1.7e9

    asyncio.run(asyncio.wait_for(aggregate(), PATIENCE))


def test_the_example_reports(lab: Lab) -> None:
    lab.start_daemon()
    command = [sys.executable, "-W", "error", str(EXAMPLE), str(lab.root)]
    ended = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)
    assert (ended.returncode, ended.stderr) == (0, "")
    assert ended.stdout.splitlines()[1:] == ["taken", "taken"]
    assert ended.stdout.startswith("httpPost is sending: ")
    assert wait_until(lambda: lab.received("action") == ["play", "pause"])


def test_the_example_says_that_there_is_no_daemon(tmp_path: Path) -> None:
    command = [sys.executable, "-W", "error", str(EXAMPLE), str(tmp_path)]
    ended = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)
    assert (ended.returncode, ended.stdout) == (1, "")
    assert ended.stderr == "not reported: daemon cannot be reached\n"
