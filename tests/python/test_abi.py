"""The declarations of the package against the headers that C programs compile."""

from __future__ import annotations

import ctypes
import re
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

import corvid
from corvid import _abi, _native, keys, values
from corvid.session import DEFAULT_DEADLINE
from corvid.testing import Operation

HEADERS = Path(__file__).parents[2] / "client/include/corvid"
TEXT = "".join((HEADERS / name).read_text() for name in ("corvid.h", "testing.h"))
CODE = re.sub(r"/\*.*?\*/", " ", TEXT, flags=re.DOTALL)

# What the package has no use for: it copies values itself, and gives texts with their length.
UNUSED = {
    "corvid_array_append_string",
    "corvid_array_append_value",
    "corvid_array_copy",
    "corvid_dictionary_copy",
    "corvid_dictionary_get",
    "corvid_dictionary_remove",
    "corvid_dictionary_set_string",
    "corvid_dictionary_set_value",
    "corvid_states_copy",
}

PLAIN = {
    "void": None,
    "int": ctypes.c_int,
    "bool": ctypes.c_bool,
    "size_t": ctypes.c_size_t,
    "double": ctypes.c_double,
    "int64_t": ctypes.c_int64,
    "uint16_t": ctypes.c_uint16,
    "uint32_t": ctypes.c_uint32,
}
ENUMERATIONS = set(re.findall(r"typedef enum \{[^}]*\} (\w+);", CODE))


def ctype(declared: str) -> Any:
    """Of a type of C, without its name."""
    declared = re.sub(r"\bconst\b", "", declared).replace(" ", "")
    if declared.endswith("*"):
        to = declared[:-1]
        if to in ("void", "char"):
            return ctypes.c_void_p if to == "void" else ctypes.c_char_p
        # What it points to may have a length.
        return ctypes.POINTER(ctypes.c_void_p if to == "char*" else ctype(to))
    if declared in PLAIN:
        return PLAIN[declared]
    return ctypes.c_int if declared in ENUMERATIONS else getattr(_abi, declared)


def parameters(declared: str) -> list[tuple[str, Any]]:
    """Name and type of each; a text with a length behind it may contain zero bytes."""
    result = []
    for each in declared.split(","):
        if each.strip() == "void":
            continue
        kind, name = re.fullmatch(r"\s*(.*?)(\w+)\s*", each, re.DOTALL).groups()
        result.append((name, ctype(kind)))
    for index, (name, _) in enumerate(result[1:]):
        if name == "length" and result[index][1] is ctypes.c_char_p:
            result[index] = (result[index][0], ctypes.c_void_p)
    return result


def functions() -> dict[str, tuple[Any, tuple[Any, ...]]]:
    found = {}
    for declared in re.findall(r"^CORVID_API\s+(?!extern)([^;]*);", CODE, re.MULTILINE):
        gives, name, takes = re.fullmatch(r"(.*?)(\w+)\((.*)\)", declared, re.DOTALL).groups()
        taken = parameters(takes)
        result = ctype(gives)
        if result is ctypes.c_char_p and any(each == "length" for each, _ in taken):
            result = ctypes.c_void_p
        found[name] = (result, tuple(kind for _, kind in taken))
    return found


def fields(structure: str) -> Iterator[tuple[str, Any]]:
    body = re.search(r"typedef struct \{([^}]*)\} " + structure + ";", CODE).group(1)
    for declared in body.split(";")[:-1]:
        handler = re.fullmatch(r"\s*void \(\*(\w+)\)\((.*)\)", declared, re.DOTALL)
        if handler:
            taken = [kind for _, kind in parameters(handler.group(2))]
            yield handler.group(1), ctypes.CFUNCTYPE(None, *taken)
        else:
            yield parameters(declared)[0]


def constants(prefix: str) -> dict[str, int]:
    found = re.findall(rf"\b{prefix}_(\w+) = (\d+)", CODE)
    return {name: int(number) for name, number in found}


def words(prefix: str) -> dict[str, str]:
    return dict(re.findall(rf'#define {prefix}_(\w+) "([^"]*)"', CODE))


def test_every_function_is_bound_or_known_to_be_of_no_use() -> None:
    assert len(functions()) > 70
    assert set(functions()) == set(_abi.FUNCTIONS) | UNUSED
    assert not set(_abi.FUNCTIONS) & UNUSED


@pytest.mark.parametrize("name", _abi.FUNCTIONS)
def test_a_function_gives_and_takes_what_the_header_says(name: str) -> None:
    assert _abi.FUNCTIONS[name] == functions()[name]


@pytest.mark.parametrize("kind", ["text", "states", "flush", "success", "finished"])
def test_a_callback_is_given_what_the_header_says(kind: str) -> None:
    name = f"corvid_{kind}_callback_t"
    declared = re.search(rf"typedef void \(\*{name}\)\(([^;]*)\);", CODE).group(1)
    taken = [each for _, each in parameters(declared)]
    assert getattr(_abi, name) is ctypes.CFUNCTYPE(None, *taken)


@pytest.mark.parametrize("name", ["error", "options", "test_call", "test_answer"])
def test_a_structure_has_the_fields_of_the_header(name: str) -> None:
    structure = f"corvid_{name}_t"
    assert getattr(_abi, structure)._fields_ == list(fields(structure))


def test_codes_have_the_numbers_of_the_header() -> None:
    codes = {"OK": 0, **constants("CORVID_ERROR")}
    assert {code.name: code.value for code in corvid.ErrorCode} == codes


def test_dispositions_operations_and_outcomes_have_the_numbers_of_the_header() -> None:
    dispositions = {each.name: each.value for each in corvid.Disposition}
    assert dispositions == constants("CORVID_DISPOSITION")
    assert {each.name: each.value for each in Operation} == constants("CORVID_OPERATION")
    assert _native._UNANSWERED == constants("CORVID_OUTCOME")["UNANSWERED"]


def test_there_is_a_reader_for_each_type_of_value_at_its_number() -> None:
    kinds = ["null", "boolean", "integer", "real", "date", "string", "data", "array", "dictionary"]
    assert constants("CORVID_TYPE") == {kind.upper(): at for at, kind in enumerate(kinds)}
    assert len(values._READERS) == len(kinds)


def test_keys_are_those_of_the_header() -> None:
    of_header = {**words("CORVID_KEY"), **words("CORVID_BACKEND"), **words("CORVID_DAEMON")}
    of_header["DAEMON_ERROR_DOMAIN"] = of_header.pop("ERROR_DOMAIN")
    assert {name: word for name, word in vars(keys).items() if name.isupper()} == of_header


def test_the_default_deadline_is_that_of_the_header() -> None:
    milliseconds = re.search(r"#define CORVID_DEFAULT_DEADLINE_MS (\d+)", CODE).group(1)
    assert DEFAULT_DEADLINE == int(milliseconds) / 1000


def test_the_library_in_use_has_the_version_of_the_header() -> None:
    numbers = re.findall(r"#define CORVID_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", CODE)
    assert corvid.library_version() == ".".join(numbers)
