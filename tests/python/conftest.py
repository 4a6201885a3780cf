"""For every test of the Python package."""

from __future__ import annotations

import json
import os
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

import corvid
from corvid.testing import TestSink

PATIENCE = 20  # seconds, for what must come


def wait_until(holds: Callable[[], object]) -> bool:
    until = time.monotonic() + PATIENCE
    while not holds():
        if time.monotonic() > until:
            return False
        time.sleep(0.01)
    return True


def run_python(script: str, *arguments: str) -> subprocess.CompletedProcess[str]:
    """A process of its own, with the same package, that must end by itself."""
    command = [sys.executable, "-W", "error", "-c", script, *arguments]
    return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE)


@pytest.fixture
def tmp_path() -> Iterator[Path]:
    """Unlike pytest's own, gone after the test."""
    with tempfile.TemporaryDirectory() as folder:
        yield Path(folder)


@pytest.fixture
def sink() -> TestSink:
    return TestSink()


@pytest.fixture
def session(sink: TestSink) -> Iterator[corvid.Session]:
    with corvid.Session(test_sink=sink, deadline=PATIENCE) as opened:
        yield opened


class Lab:
    """The real daemon and every server that it talks to, below a folder."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self._received = root / "lab/received.jsonl"
        self._seen = 0  # bytes of that
        self._daemon: subprocess.Popen[bytes] | None = None
        program = os.environ["CORVID_LAB_PROGRAM"]
        with open(root / "lab.json", "wb") as addresses:
            self._servers = _start(program, "--root", str(root), stdout=addresses)
        assert wait_until((root / "lab.json").read_text), "the lab does not come up"

    def start_daemon(self) -> None:
        log = self.root / "corvidd.log"
        arguments = ("--root", str(self.root), "--log", "stderr", "--log-level", "debug")
        log.touch()
        began = log.stat().st_size
        with open(log, "ab") as errors:
            self._daemon = _start(os.environ["CORVIDD_PROGRAM"], *arguments, stderr=errors)

        def said() -> bytes:
            return log.read_bytes()[began:]

        assert wait_until(lambda: b"Listener resumes" in said()), said().decode()

    def stop_daemon(self) -> None:
        if self._daemon is not None:
            _stop(self._daemon)
        self._daemon = None

    def received(self, key: str) -> list[object]:
        """What the events that have arrived in this test hold under that key."""
        text = self._received.read_bytes()[self._seen :] if self._received.exists() else b""
        *lines, _ = text.split(b"\n")  # the last one may still be written
        posts = [json.loads(line) for line in lines]
        events = [event for post in posts for event in post.get("message", {}).get("events", [])]
        return [event[key] for event in events if key in event]

    def end_test(self) -> None:
        self.stop_daemon()
        self._seen = self._received.stat().st_size if self._received.exists() else 0

    def close(self) -> None:
        _stop(self._servers)


def _start(*command: str, **streams: object) -> subprocess.Popen[bytes]:
    # None outlives a test that is killed.
    bound = ("setpriv", "--pdeathsig", "KILL", *command)
    return subprocess.Popen(bound, **streams)  # type: ignore[call-overload, no-any-return]


def _stop(process: subprocess.Popen[bytes]) -> None:
    process.terminate()
    try:
        process.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


@pytest.fixture(scope="session")
def servers() -> Iterator[Lab]:
    with tempfile.TemporaryDirectory() as root:
        started = Lab(Path(root))
        yield started
        started.close()


@pytest.fixture
def lab(servers: Lab) -> Iterator[Lab]:
    """Without a daemon so far."""
    yield servers
    servers.end_test()
