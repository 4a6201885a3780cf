"""Python values to property values of the library, and back.

None, bool, int, float, str, bytes, datetime, list and dict have each their own type there. What can
be given besides: subclasses (an IntEnum is its number, a StrEnum its text), bytearray and
memoryview, and every other Sequence and Mapping. Anything else is refused before it reaches the
library, with a message that says where it stands, such as "payload['tracks'][3]":

TypeError       another type, or a key that is no str
OverflowError   an int of more than 64 bits with a sign
ValueError      a float that is no number or infinite, which no post can hold; a str with
                surrogates; a key with a zero character; a datetime without a time zone, whose
                meaning would depend on the machine; arrays and dictionaries in more than 32 of
                each other, as those are that contain themselves

What comes back has the first types. A date is in UTC; one that datetime cannot hold comes as a
float, seconds since 1970.
"""

from __future__ import annotations

import ctypes
import math
from collections.abc import Callable, Mapping, Sequence
from datetime import datetime, timedelta, timezone
from typing import Any, TypeAlias, Union

from ._abi import lib
from .errors import ErrorCode, check, error_of

# What can be given, and what comes back.
Storable: TypeAlias = Union[
    None,
    bool,
    int,
    float,
    str,
    bytes,
    bytearray,
    memoryview,
    datetime,
    "Sequence[Storable]",
    "Mapping[str, Storable]",
]
Value: TypeAlias = Union[
    None, bool, int, float, str, bytes, datetime, "list[Value]", "dict[str, Value]"
]

# Arrays and dictionaries in each other; the library refuses more too, but cannot say where.
MOST_NESTED = 32

_KINDS = ("null", "boolean", "integer", "real", "date", "text", "data", "array", "dictionary")
_SET = {kind: getattr(lib, f"corvid_dictionary_set_{kind}") for kind in _KINDS}
_APPEND = {kind: getattr(lib, f"corvid_array_append_{kind}") for kind in _KINDS}
_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)

# Where a value stands: its name, then keys and indexes.
_Place: TypeAlias = "tuple[str | int, ...]"


class Dictionary:
    """A dictionary of the library, for as long as this object is there."""

    def __init__(self, content: Mapping[str, Storable], place: _Place) -> None:
        self._as_parameter_ = _made(lib.corvid_dictionary_create())
        _check_nesting(place)
        for key, value in content.items():
            # A key's place is that of its value.
            at = (*place, key)
            encoded = _key(key, at)
            _put(lambda kind, *rest: _SET[kind](self, encoded, *rest), value, at)

    def __del__(self, destroy: Any = lib.corvid_dictionary_destroy) -> None:
        if hasattr(self, "_as_parameter_"):
            destroy(self)


class Array:
    """An array of the library, for as long as this object is there."""

    def __init__(self, content: Sequence[Storable], place: _Place) -> None:
        self._as_parameter_ = _made(lib.corvid_array_create())
        _check_nesting(place)
        for index, value in enumerate(content):
            _put(lambda kind, *rest: _APPEND[kind](self, *rest), value, (*place, index))

    def __del__(self, destroy: Any = lib.corvid_array_destroy) -> None:
        if hasattr(self, "_as_parameter_"):
            destroy(self)


def dictionary(content: Mapping[str, Storable] | None, name: str) -> Dictionary | None:
    """`name` is what errors call it."""
    return None if content is None else Dictionary(mapping(content, name), (name,))


def mapping(content: Mapping[str, Storable], name: str) -> Mapping[str, Storable]:
    if not isinstance(content, Mapping):
        raise TypeError(f"{name}: a dictionary is wanted, not {_type(content)}")
    return content


def array(content: Sequence[Storable], name: str) -> Array:
    """`name` is what errors call it."""
    if not isinstance(content, Sequence) or isinstance(content, (str, bytes, bytearray)):
        raise TypeError(f"{name}: a list is wanted, not {_type(content)}")
    return Array(content, (name,))


def in_text(place: _Place) -> str:
    return str(place[0]) + "".join(f"[{part!r}]" for part in place[1:])


def utf8(text: str, place: _Place) -> bytes:
    try:
        return str.encode(text, "utf-8")
    except UnicodeEncodeError as problem:
        raise ValueError(f"{in_text(place)}: a text with surrogates: {problem.reason}") from None


def _type(value: object) -> str:
    return type(value).__qualname__


def _made(pointer: Any) -> Any:
    if not pointer:
        raise error_of(ErrorCode.NO_MEMORY)
    return pointer


def _check_nesting(place: _Place) -> None:
    if len(place) > MOST_NESTED:
        raise ValueError(f"{in_text(place)}: nested more than {MOST_NESTED} deep")


def _key(key: object, place: _Place) -> bytes:
    if not isinstance(key, str):
        raise TypeError(f"{in_text(place)}: a key is a str, not {_type(key)}")
    encoded = utf8(key, place)
    if b"\0" in encoded:
        raise ValueError(f"{in_text(place)}: a key with a zero character")
    return encoded


def _put(put: Callable[..., int], value: object, place: _Place) -> None:
    """Hands a value to `put`, as its kind and what a setter of the library takes."""
    if value is None:
        code = put("null")
    elif isinstance(value, bool):  # before int, which it is too
        code = put("boolean", value)
    elif isinstance(value, int):
        if not -(2**63) <= value < 2**63:
            raise OverflowError(f"{in_text(place)}: more than 64 bits with a sign")
        code = put("integer", value)
    elif isinstance(value, float):
        if not math.isfinite(value):
            raise ValueError(f"{in_text(place)}: {value!r} is no finite number")
        code = put("real", value)
    elif isinstance(value, str):
        text = utf8(value, place)
        code = put("text", text, len(text))
    elif isinstance(value, (bytes, bytearray, memoryview)):
        data = bytes(value)
        code = put("data", data, len(data))
    elif isinstance(value, datetime):
        if value.utcoffset() is None:
            raise ValueError(f"{in_text(place)}: a datetime without a time zone")
        code = put("date", (value - _EPOCH).total_seconds())
    elif isinstance(value, Mapping):
        code = put("dictionary", Dictionary(value, place))
    elif isinstance(value, Sequence):
        code = put("array", Array(value, place))
    else:
        raise TypeError(f"{in_text(place)}: {_type(value)} has no type of property lists")
    check(code)


def from_dictionary(pointer: Any) -> dict[str, Value] | None:
    """A copy of a borrowed dictionary; None of none."""
    if not pointer:
        return None
    result = {}
    key, length = ctypes.c_void_p(), ctypes.c_size_t()
    for index in range(lib.corvid_dictionary_count(pointer)):
        value = lib.corvid_dictionary_entry(pointer, index, key, length)
        result[ctypes.string_at(key, length.value).decode()] = _from_value(value)
    return result


def from_array(pointer: Any) -> list[Value] | None:
    """A copy of a borrowed array; None of none."""
    if not pointer:
        return None
    return [
        _from_value(lib.corvid_array_get(pointer, index))
        for index in range(lib.corvid_array_count(pointer))
    ]


def from_text(pointer: int | None, length: int) -> str | None:
    """A copy of a borrowed text; None of none."""
    return None if pointer is None else ctypes.string_at(pointer, length).decode()


def _number(get: Any, result: Any) -> Callable[[Any], Any]:
    def read(value: Any) -> Any:
        into = result()
        check(get(value, into))
        return into.value

    return read


def _bytes(get: Any) -> Callable[[Any], bytes]:
    def read(value: Any) -> bytes:
        length = ctypes.c_size_t()
        start = get(value, length)
        return ctypes.string_at(start, length.value)

    return read


_seconds = _number(lib.corvid_value_get_date, ctypes.c_double)
_text = _bytes(lib.corvid_value_string)


def _date(value: Any) -> datetime | float:
    seconds: float = _seconds(value)
    try:
        return _EPOCH + timedelta(seconds=seconds)
    except OverflowError:
        return seconds


# By corvid_type_t.
_READERS: tuple[Callable[[Any], Any], ...] = (
    lambda value: None,
    _number(lib.corvid_value_get_boolean, ctypes.c_bool),
    _number(lib.corvid_value_get_integer, ctypes.c_int64),
    _number(lib.corvid_value_get_real, ctypes.c_double),
    _date,
    lambda value: _text(value).decode(),
    _bytes(lib.corvid_value_data),
    lambda value: from_array(lib.corvid_value_array(value)),
    lambda value: from_dictionary(lib.corvid_value_dictionary(value)),
)


def _from_value(value: Any) -> Value:
    result: Value = _READERS[lib.corvid_value_type(value)](value)
    return result
