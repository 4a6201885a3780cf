"""What the daemon tells, as values that do not change."""

from __future__ import annotations

import enum
from dataclasses import dataclass
from typing import Any

from ._abi import lib
from .values import Value, from_array, from_dictionary, from_text


class Reason(str):
    """Why something does not report: a word such as "noConsent"; "reporting" keeps nothing back."""

    @property
    def text(self) -> str | None:
        """What is the case, a sentence in English; None for a word that the library in use does not
        know."""
        sentence: bytes | None = lib.corvid_reason_text(self.encode())
        return None if sentence is None else sentence.decode()


class Disposition(enum.IntEnum):
    """What had become of a message when the daemon answered."""

    UNKNOWN = 0  # the daemon does not tell
    TAKEN = 1  # a backend sends it, holds it or has delivered it
    DROPPED = 2  # nobody took it


class State(enum.StrEnum):
    """What a backend does."""

    WAITING = "waiting"
    DISABLED = "disabled"
    SENDING = "sending"
    HELD = "held"
    OTHER = "other"  # a word of a newer daemon

    @classmethod
    def _missing_(cls, value: object) -> State:
        return cls.OTHER


@dataclass(frozen=True)
class Answer:
    """The answer to a message, a finish or a single message."""

    disposition: Disposition
    reason: Reason | None  # why nobody took it; None where somebody did, or that is not known
    text: str | None

    @property
    def taken(self) -> bool:
        """False only where the daemon says that nobody took it."""
        return self.disposition is not Disposition.DROPPED


@dataclass(frozen=True)
class Backend:
    """One way out of the daemon, as it stands for a session."""

    name: str
    state: State
    reason: Reason


@dataclass(frozen=True)
class States:
    """What each backend of a session does and why, in the order of their names."""

    backends: tuple[Backend, ...]
    reason: Reason | None  # why there are none; None where there are, or that is not known
    reporting: tuple[str, ...]  # the names of those that report

    def __getitem__(self, name: str) -> Backend:
        """The backend of that name; KeyError without one."""
        for backend in self.backends:
            if backend.name == name:
                return backend
        raise KeyError(name)


@dataclass(frozen=True)
class Failure:
    """An error object of the daemon."""

    domain: str
    code: int
    description: str


@dataclass(frozen=True)
class Flushed:
    """The answer to a flush. A failure may come with a text."""

    text: str | None
    failure: Failure | None


@dataclass(frozen=True)
class Uploaded:
    """The answer to an upload. True where it succeeded."""

    success: bool
    failure: Failure | None

    def __bool__(self) -> bool:
        return self.success


@dataclass(frozen=True)
class Delivery:
    """A message of a chain, for the session that aggregates it. With everything absent or zero it
    tells the aggregation to shut down."""

    message: dict[str, Value] | None  # the session info of whom it comes from
    timestamp: float  # seconds since 1970
    category: int
    type: int
    payload: dict[str, Value] | None

    @property
    def is_shutdown(self) -> bool:
        return self == Delivery(None, 0, 0, 0, None)


# From what a callback is given, which is valid only there.


def answer_of(text: int | None, length: int) -> Answer:
    answer = lib.corvid_current_answer()
    reason = lib.corvid_answer_reason(answer)
    return Answer(
        Disposition(lib.corvid_answer_disposition(answer)),
        None if reason is None else Reason(reason.decode()),
        from_text(text, length),
    )


def states_of(states: Any) -> States:
    reason = lib.corvid_states_reason(states)
    return States(
        tuple(
            Backend(
                lib.corvid_states_backend_name(states, index).decode(),
                State(lib.corvid_states_backend_state(states, index).decode()),
                Reason(lib.corvid_states_backend_reason(states, index).decode()),
            )
            for index in range(lib.corvid_states_count(states))
        ),
        None if reason is None else Reason(reason.decode()),
        _names(lib.corvid_states_reporting(states)),
    )


def answered_states(reporting: Any) -> States:
    told = lib.corvid_answer_states(lib.corvid_current_answer())
    # A daemon that knows of no reasons tells the names only.
    return states_of(told) if told else States((), None, _names(reporting))


def flushed(text: int | None, length: int, failure: Any) -> Flushed:
    return Flushed(from_text(text, length), _failure(failure))


def uploaded(success: bool, failure: Any) -> Uploaded:
    return Uploaded(success, _failure(failure))


def delivery(message: Any, timestamp: float, category: int, type: int, payload: Any) -> Delivery:
    return Delivery(from_dictionary(message), timestamp, category, type, from_dictionary(payload))


def _names(array: Any) -> tuple[str, ...]:
    return tuple(str(name) for name in from_array(array) or ())


def _failure(failure: Any) -> Failure | None:
    if not failure:
        return None
    error = failure.contents
    return Failure(error.domain.decode(), error.code, error.description.decode())
