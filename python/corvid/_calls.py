"""The calls of a session, each as what the library is given and what is made of its answer."""

from __future__ import annotations

import os
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any, Generic, TypeVar

from . import keys, results, values
from ._abi import lib
from .values import Storable

T = TypeVar("T")


@dataclass(frozen=True)
class Call(Generic[T]):
    """`function` of the library takes the session, `arguments`, and callbacks. What the one for the
    answer is given, where there is one, becomes a T by `result`."""

    function: Any
    arguments: tuple[Any, ...]
    result: Callable[..., T]


@dataclass(frozen=True, kw_only=True)
class Description:
    """Who reports. What is None is not told.

    client_type         the number that the daemon's configuration knows the client by
    client_version      the client's own version
    session_id          the client's own number of the session
    require_user_info   whether nothing is to be reported without user info
    batch_event         whether events may wait and travel together
    client_name, service_name   of the user info; sessions with the same belong together
    frameworks          names or paths that the configuration may ask for
    session_info, user_info     further entries of the two; those named above come before
    """

    client_type: int
    client_version: int | None = None
    session_id: int | None = None
    require_user_info: bool | None = None
    batch_event: bool | None = None
    client_name: str | None = None
    service_name: str | None = None
    frameworks: Sequence[str] = ()
    session_info: Mapping[str, Storable] = field(default_factory=dict)
    user_info: Mapping[str, Storable] | None = None

    def _infos(self) -> tuple[Any, Any]:
        """Session info and user info of the library; without any entry the latter is None."""
        session_info = {
            **values.mapping(self.session_info, "session_info"),
            **_told(
                {
                    keys.CLIENT_TYPE: self.client_type,
                    keys.CLIENT_VERSION: self.client_version,
                    keys.SESSION_ID: self.session_id,
                    keys.REQUIRE_USER_INFO: self.require_user_info,
                    keys.BATCH_EVENT: self.batch_event,
                }
            ),
        }
        names = _told(
            {keys.CLIENT_NAME: self.client_name, keys.SERVICE_NAME: self.service_name}
        )
        user_info: Mapping[str, Storable] | None = names or None
        if self.user_info is not None:
            user_info = {**values.mapping(self.user_info, "user_info"), **names}
        return (
            values.dictionary(session_info, "session_info"),
            values.dictionary(user_info, "user_info"),
        )


def describe(description: Description, aggregates: bool) -> Call[None]:
    frameworks = values.array(description.frameworks, "frameworks")
    arguments = (*description._infos(), frameworks, bool(aggregates))
    return Call(lib.corvid_session_set_session_info, arguments, lambda: None)


def start() -> Call[results.States]:
    return Call(lib.corvid_session_start_config, (), results.answered_states)


def fetch_states(user_info: Mapping[str, Storable] | None) -> Call[results.States]:
    arguments = (values.dictionary(user_info, "user_info"),)
    return Call(lib.corvid_session_fetch_states, arguments, results.answered_states)


def fetch_display_url() -> Call[str | None]:
    return Call(lib.corvid_session_fetch_display_url, (), values.from_text)


def send(
    category: int, type: int, payload: Mapping[str, Storable] | None, flag: int | None
) -> Call[results.Answer]:
    kind = uint16(category, "category"), uint16(type, "type")
    if flag is None:
        arguments = (*kind, values.dictionary(payload, "payload"))
        return Call(lib.corvid_session_send_message, arguments, results.answer_of)
    message: dict[str, Storable] = {keys.CATEGORY: category, keys.TYPE: type, keys.FLAG: flag}
    if payload is not None:
        message[keys.PAYLOAD] = payload
    return Call(
        lib.corvid_session_send_message_with_dictionary,
        (values.dictionary(message, "message"),),
        results.answer_of,
    )


def send_single(
    description: Description, category: int, type: int, payload: Mapping[str, Storable] | None
) -> Call[results.Answer]:
    arguments = (
        *description._infos(),
        uint16(category, "category"),
        uint16(type, "type"),
        values.dictionary(payload, "payload"),
    )
    return Call(lib.corvid_session_send_single_message, arguments, results.answer_of)


def flush() -> Call[results.Flushed]:
    return Call(lib.corvid_session_flush, (), results.flushed)


def finish() -> Call[results.Answer]:
    return Call(lib.corvid_session_finish, (), results.answer_of)


def upload_file(path: str | os.PathLike[str]) -> Call[results.Uploaded]:
    return Call(lib.corvid_session_upload_file, (in_file_system(path),), results.uploaded)


def upload_log_data(log_data: Sequence[Storable]) -> Call[results.Uploaded]:
    arguments = (values.array(log_data, "log_data"),)
    return Call(lib.corvid_session_upload_log_data, arguments, results.uploaded)


def uint16(number: int, name: str) -> int:
    """The library takes 16 bits; ctypes would cut off the others."""
    if isinstance(number, bool) or not isinstance(number, int):
        raise TypeError(f"{name}: an int is wanted, not {number.__class__.__qualname__}")
    if not 0 <= number < 2**16:
        raise OverflowError(f"{name}: {number} is outside of 0 to 65535")
    return number


def in_file_system(path: str | os.PathLike[str]) -> bytes:
    """A path as the library takes it, which would end at a zero byte."""
    encoded = os.fsencode(path)
    if b"\0" in encoded:
        raise ValueError("a path with a zero character")
    return encoded


def _told(entries: Mapping[str, Storable]) -> dict[str, Storable]:
    return {key: value for key, value in entries.items() if value is not None}
