"""Values on their way through the library and back."""

from __future__ import annotations

import ctypes
import enum
import types
from collections import OrderedDict, UserDict
from datetime import datetime, timedelta, timezone
from typing import Any

import pytest

import corvid
from corvid import values
from corvid._abi import lib
from corvid.testing import TestSink

UTC = timezone.utc


class Number(enum.IntEnum):
    SEVEN = 7


class Word(enum.StrEnum):
    BLUE = "blue"


def there_and_back(value: Any) -> Any:
    return values.from_dictionary(values.dictionary({"value": value}, "payload"))["value"]


@pytest.mark.parametrize(
    "value",
    [
        None,
        True,
        False,
        0,
        1,
        -1,
        2**63 - 1,
        -(2**63),
        0.0,
        1.0,
        -2.5,
        1e308,
        5e-324,
        "",
        "text",
        "zero\0inside",
        "äöü 😀",
        b"",
        b"bytes\0\xff",
        datetime(2026, 11, 22, 12, 30, 15, 250000, UTC),
        datetime(1969, 12, 31, 23, 59, 59, tzinfo=UTC),
        [],
        [1, [2, []]],
        {},
        {"": 1, "äö": {"b": [None, True, 0.5, "c", b"d"]}},
    ],
    ids=repr,
)
def test_each_kind_comes_back_as_it_was(value: Any) -> None:
    back = there_and_back(value)
    assert back == value
    assert type(back) is type(value), "a bool is no int, and an int no float"


@pytest.mark.parametrize(
    "given, back",
    [
        (Number.SEVEN, 7),
        (Word.BLUE, "blue"),
        (bytearray(b"ab"), b"ab"),
        (memoryview(b"abcd")[::2], b"ac"),
        ((1, 2), [1, 2]),
        (range(3), [0, 1, 2]),
        (OrderedDict(b=1, a=2), {"b": 1, "a": 2}),
        (UserDict(a=1), {"a": 1}),
        (types.MappingProxyType({"a": 1}), {"a": 1}),
        (
            datetime(2026, 1, 1, 1, tzinfo=timezone(timedelta(hours=1))),
            datetime(2026, 1, 1, tzinfo=UTC),
        ),
    ],
    ids=repr,
)
def test_other_types_of_the_same_kind_are_taken(given: Any, back: Any) -> None:
    result = there_and_back(given)
    assert result == back
    assert type(result) is type(back)


def test_dictionaries_keep_their_order() -> None:
    assert list(there_and_back({"b": 1, "a": 2, "c": 3})) == ["b", "a", "c"]


@pytest.mark.parametrize(
    "value, error, says",
    [
        (2**63, OverflowError, "64 bits"),
        (-(2**63) - 1, OverflowError, "64 bits"),
        (10**400, OverflowError, "64 bits"),
        (float("nan"), ValueError, "nan is no finite number"),
        (float("-inf"), ValueError, "-inf is no finite number"),
        ("\ud800", ValueError, "surrogates"),
        (datetime(2026, 11, 22), ValueError, "without a time zone"),
        (datetime(2026, 11, 22).date(), TypeError, "date has no type"),
        (1j, TypeError, "complex has no type"),
        ({1, 2}, TypeError, "set has no type"),
        (object(), TypeError, "object has no type"),
        (iter([1]), TypeError, "list_iterator has no type"),
    ],
)
def test_what_cannot_travel_is_refused_with_its_place(
    value: Any, error: type[Exception], says: str
) -> None:
    with pytest.raises(error, match=rf"^payload\['a b'\]\[1\]\['c'\]: .*{says}"):
        values.dictionary({"a b": [0, {"c": value}]}, "payload")


@pytest.mark.parametrize(
    "key, error, says",
    [
        (1, TypeError, "a key is a str, not int"),
        (b"a", TypeError, "a key is a str, not bytes"),
        ("a\0b", ValueError, "zero character"),
        ("\udfff", ValueError, "surrogates"),
    ],
)
def test_keys_that_cannot_travel_are_refused_with_their_place(
    key: Any, error: type[Exception], says: str
) -> None:
    with pytest.raises(error, match=rf"^payload\['a'\]\[.*\]: .*{says}"):
        values.dictionary({"a": {key: 1}}, "payload")


@pytest.mark.parametrize("content", [[("a", 1)], "text", 1])
def test_only_a_mapping_is_a_dictionary(content: Any) -> None:
    with pytest.raises(TypeError, match="^payload: a dictionary is wanted, not "):
        values.dictionary(content, "payload")


@pytest.mark.parametrize("content", [{"a": 1}, "text", b"bytes", {1}])
def test_only_a_sequence_is_an_array(content: Any) -> None:
    with pytest.raises(TypeError, match="^log_data: a list is wanted, not "):
        values.array(content, "log_data")


def nested(depth: int) -> dict[str, Any]:
    """Dictionaries and arrays in each other, so many with the outer one."""
    inner: Any = 1
    for level in range(depth - 1):
        inner = {"a": inner} if level % 2 else [inner]
    return {"a": inner}


def test_nesting_is_refused_where_the_library_would_refuse_it(
    session: corvid.Session, sink: TestSink
) -> None:
    session.report(1, 1, nested(values.MOST_NESTED))
    assert sink.await_calls(1)[0].payload == nested(values.MOST_NESTED)
    with pytest.raises(ValueError, match=r"^payload\['a'\].*: nested more than 32 deep"):
        session.report(1, 1, nested(values.MOST_NESTED + 1))
    # One more around what the package lets pass.
    outer = values.Dictionary({}, ("payload",))
    inner = values.Dictionary(nested(values.MOST_NESTED), ("payload",))
    lib.corvid_dictionary_set_dictionary(outer, b"a", inner)
    result = lib.corvid_session_send_message(
        session._native._session,
        *(1, 1, outer),
        *(kind() for kind in lib.corvid_session_send_message.argtypes[4:6]),
        None,
    )
    assert result == corvid.ErrorCode.TOO_DEEP


def test_a_value_that_contains_itself_is_refused() -> None:
    endless: list[Any] = []
    endless.append(endless)
    with pytest.raises(ValueError, match="nested more than 32 deep"):
        values.dictionary({"a": endless}, "payload")


def test_real_numbers_and_dates_that_python_cannot_be_given_are_read() -> None:
    container = values.Dictionary({}, ("payload",))
    lib.corvid_dictionary_set_date(container, b"date", 1e300)
    lib.corvid_dictionary_set_real(container, b"real", float("inf"))
    assert values.from_dictionary(container) == {"date": 1e300, "real": float("inf")}


def test_what_is_refused_leaves_nothing_behind(monkeypatch: pytest.MonkeyPatch) -> None:
    alive = 0

    def counting(function: Any, step: int) -> Any:
        def counted(*arguments: Any) -> Any:
            nonlocal alive
            alive += step
            return function(*arguments)

        return counted

    for kind in (values.Dictionary, values.Array):
        destroy = kind.__del__.__defaults__[0]
        monkeypatch.setattr(kind.__del__, "__defaults__", (counting(destroy, -1),))
    made = values._made
    monkeypatch.setattr(values, "_made", counting(made, 1))
    with pytest.raises(TypeError):
        values.dictionary({"a": [1, {"b": [object()]}]}, "payload")
    assert alive == 0
    kept = values.dictionary({"a": [1, {"b": []}]}, "payload")
    assert alive == 1, "the library has its own copies"
    del kept
    assert alive == 0


def test_borrowed_texts_end_where_their_length_says() -> None:
    text = ctypes.create_string_buffer(b"abc\0def")
    assert values.from_text(ctypes.addressof(text), 5) == "abc\0d"
    assert values.from_text(None, 0) is None
