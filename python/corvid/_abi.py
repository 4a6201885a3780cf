"""The C interface of libcorvid as ctypes knows it: functions, types and callbacks of corvid.h and
testing.h, under their names there. The tests compare each with the headers.

A `const char*` that has a length beside it, and so may contain zero bytes, is a `c_void_p`: what
ctypes makes of a `c_char_p` ends at the first one.
"""

from __future__ import annotations

import ctypes
from ctypes import (
    CFUNCTYPE,
    POINTER,
    Structure,
    c_bool,
    c_char_p,
    c_double,
    c_int,
    c_int64,
    c_size_t,
    c_uint16,
    c_uint32,
    c_void_p,
)
from typing import Any

SONAME = "libcorvid.so.0"


class corvid_dictionary_t(Structure):
    pass


class corvid_array_t(Structure):
    pass


class corvid_value_t(Structure):
    pass


class corvid_states_t(Structure):
    pass


class corvid_session_t(Structure):
    pass


class corvid_answer_t(Structure):
    pass


class corvid_test_sink_t(Structure):
    pass


class corvid_error_t(Structure):
    _fields_ = [("domain", c_char_p), ("code", c_int64), ("description", c_char_p)]


_dictionary = POINTER(corvid_dictionary_t)
_array = POINTER(corvid_array_t)
_value = POINTER(corvid_value_t)
_states = POINTER(corvid_states_t)
_session = POINTER(corvid_session_t)
_answer = POINTER(corvid_answer_t)
_test_sink = POINTER(corvid_test_sink_t)
_error = POINTER(corvid_error_t)
_length = POINTER(c_size_t)

corvid_text_callback_t: Any = CFUNCTYPE(None, c_void_p, c_int, c_void_p, c_size_t)
corvid_states_callback_t: Any = CFUNCTYPE(None, c_void_p, c_int, _array)
corvid_flush_callback_t: Any = CFUNCTYPE(None, c_void_p, c_int, c_void_p, c_size_t, _error)
corvid_success_callback_t: Any = CFUNCTYPE(None, c_void_p, c_int, c_bool, _error)
corvid_finished_callback_t: Any = CFUNCTYPE(None, c_void_p, c_int)
# The handlers of a session, which have no names in the header.
message_handler: Any = CFUNCTYPE(None, c_void_p, _dictionary, c_double, c_uint16, c_uint16, _dictionary)
plain_handler: Any = CFUNCTYPE(None, c_void_p)
states_handler: Any = CFUNCTYPE(None, c_void_p, _states)


class corvid_options_t(Structure):
    _fields_ = [
        ("size", c_size_t),
        ("root", c_char_p),
        ("deadline_ms", c_uint32),
        ("context", c_void_p),
        ("message", message_handler),
        ("invalidated", plain_handler),
        ("reconnected", plain_handler),
        ("released", plain_handler),
        ("connected", plain_handler),
        ("states_changed", states_handler),
        ("answer_deadline_ms", c_uint32),
        ("dispatch", c_bool),
        ("test_sink", _test_sink),
    ]


class corvid_test_call_t(Structure):
    _fields_ = [
        ("operation", c_int),
        ("wants_answer", c_bool),
        ("has_aggregation_block", c_bool),
        ("category", c_uint16),
        ("type", c_uint16),
        ("session_info", _dictionary),
        ("user_info", _dictionary),
        ("message", _dictionary),
        ("payload", _dictionary),
        ("array", _array),
        ("file_url", c_char_p),
    ]


class corvid_test_answer_t(Structure):
    _fields_ = [
        ("size", c_size_t),
        ("error", c_int),
        ("unanswered", c_bool),
        ("withheld", c_bool),
        ("text", c_char_p),
        ("reason", c_char_p),
        ("states", _states),
        ("success", c_bool),
        ("failure", _error),
    ]


_text_end = (corvid_text_callback_t, corvid_finished_callback_t, c_void_p)
_states_end = (corvid_states_callback_t, corvid_finished_callback_t, c_void_p)
_flush_end = (corvid_flush_callback_t, corvid_finished_callback_t, c_void_p)
_success_end = (corvid_success_callback_t, corvid_finished_callback_t, c_void_p)

# Each function with what it gives and takes.
FUNCTIONS: dict[str, tuple[Any, tuple[Any, ...]]] = {
    "corvid_version": (c_char_p, ()),
    "corvid_error_text": (c_char_p, (c_int,)),
    "corvid_reason_text": (c_char_p, (c_char_p,)),
    # Values.
    "corvid_dictionary_create": (_dictionary, ()),
    "corvid_dictionary_destroy": (None, (_dictionary,)),
    "corvid_dictionary_set_null": (c_int, (_dictionary, c_char_p)),
    "corvid_dictionary_set_boolean": (c_int, (_dictionary, c_char_p, c_bool)),
    "corvid_dictionary_set_integer": (c_int, (_dictionary, c_char_p, c_int64)),
    "corvid_dictionary_set_real": (c_int, (_dictionary, c_char_p, c_double)),
    "corvid_dictionary_set_date": (c_int, (_dictionary, c_char_p, c_double)),
    "corvid_dictionary_set_text": (c_int, (_dictionary, c_char_p, c_void_p, c_size_t)),
    "corvid_dictionary_set_data": (c_int, (_dictionary, c_char_p, c_void_p, c_size_t)),
    "corvid_dictionary_set_array": (c_int, (_dictionary, c_char_p, _array)),
    "corvid_dictionary_set_dictionary": (c_int, (_dictionary, c_char_p, _dictionary)),
    "corvid_dictionary_count": (c_size_t, (_dictionary,)),
    "corvid_dictionary_entry": (_value, (_dictionary, c_size_t, POINTER(c_void_p), _length)),
    "corvid_array_create": (_array, ()),
    "corvid_array_destroy": (None, (_array,)),
    "corvid_array_append_null": (c_int, (_array,)),
    "corvid_array_append_boolean": (c_int, (_array, c_bool)),
    "corvid_array_append_integer": (c_int, (_array, c_int64)),
    "corvid_array_append_real": (c_int, (_array, c_double)),
    "corvid_array_append_date": (c_int, (_array, c_double)),
    "corvid_array_append_text": (c_int, (_array, c_void_p, c_size_t)),
    "corvid_array_append_data": (c_int, (_array, c_void_p, c_size_t)),
    "corvid_array_append_array": (c_int, (_array, _array)),
    "corvid_array_append_dictionary": (c_int, (_array, _dictionary)),
    "corvid_array_count": (c_size_t, (_array,)),
    "corvid_array_get": (_value, (_array, c_size_t)),
    "corvid_value_type": (c_int, (_value,)),
    "corvid_value_get_boolean": (c_int, (_value, POINTER(c_bool))),
    "corvid_value_get_integer": (c_int, (_value, POINTER(c_int64))),
    "corvid_value_get_real": (c_int, (_value, POINTER(c_double))),
    "corvid_value_get_date": (c_int, (_value, POINTER(c_double))),
    "corvid_value_string": (c_void_p, (_value, _length)),
    "corvid_value_data": (c_void_p, (_value, _length)),
    "corvid_value_array": (_array, (_value,)),
    "corvid_value_dictionary": (_dictionary, (_value,)),
    # Answers and states.
    "corvid_current_answer": (_answer, ()),
    "corvid_answer_disposition": (c_int, (_answer,)),
    "corvid_answer_reason": (c_char_p, (_answer,)),
    "corvid_answer_states": (_states, (_answer,)),
    "corvid_states_reason": (c_char_p, (_states,)),
    "corvid_states_count": (c_size_t, (_states,)),
    "corvid_states_backend_name": (c_char_p, (_states, c_size_t)),
    "corvid_states_backend_state": (c_char_p, (_states, c_size_t)),
    "corvid_states_backend_reason": (c_char_p, (_states, c_size_t)),
    "corvid_states_reporting": (_array, (_states,)),
    "corvid_states_destroy": (None, (_states,)),
    # Sessions.
    "corvid_session_create": (c_int, (POINTER(corvid_options_t), POINTER(_session))),
    "corvid_session_destroy": (None, (_session,)),
    "corvid_session_connect": (c_int, (_session,)),
    "corvid_session_get_fd": (c_int, (_session,)),
    "corvid_session_dispatch": (c_int, (_session,)),
    "corvid_session_set_session_info": (
        c_int,
        (
            *(_session, _dictionary, _dictionary, _array, c_bool),
            *(corvid_finished_callback_t, c_void_p),
        ),
    ),
    "corvid_session_start_config": (c_int, (_session, *_states_end)),
    "corvid_session_fetch_states": (c_int, (_session, _dictionary, *_states_end)),
    "corvid_session_fetch_display_url": (c_int, (_session, *_text_end)),
    "corvid_session_send_message": (
        c_int,
        (_session, c_uint16, c_uint16, _dictionary, *_text_end),
    ),
    "corvid_session_send_message_with_dictionary": (c_int, (_session, _dictionary, *_text_end)),
    "corvid_session_flush": (c_int, (_session, *_flush_end)),
    "corvid_session_finish": (c_int, (_session, *_text_end)),
    "corvid_session_upload_file": (c_int, (_session, c_char_p, *_success_end)),
    "corvid_session_upload_log_data": (c_int, (_session, _array, *_success_end)),
    "corvid_session_send_single_message": (
        c_int,
        (_session, _dictionary, _dictionary, c_uint16, c_uint16, _dictionary, *_text_end),
    ),
    # Tests of applications.
    "corvid_test_sink_create": (_test_sink, ()),
    "corvid_test_sink_destroy": (None, (_test_sink,)),
    "corvid_test_sink_call_count": (c_size_t, (_test_sink,)),
    "corvid_test_sink_await_calls": (c_bool, (_test_sink, c_size_t, c_uint32)),
    "corvid_test_sink_get_call": (
        c_int,
        (_test_sink, c_size_t, POINTER(corvid_test_call_t), c_size_t),
    ),
    "corvid_test_sink_clear": (None, (_test_sink,)),
    "corvid_test_sink_answer": (
        c_int,
        (_test_sink, c_int, c_size_t, POINTER(corvid_test_answer_t)),
    ),
    "corvid_test_sink_deliver": (
        c_int,
        (_test_sink, _dictionary, c_double, c_uint16, c_uint16, _dictionary),
    ),
    "corvid_test_sink_change_states": (c_int, (_test_sink, _states)),
    "corvid_test_sink_set_reachable": (c_int, (_test_sink, c_bool)),
    "corvid_test_sink_disconnect": (c_int, (_test_sink,)),
    "corvid_states_create": (_states, ()),
    "corvid_states_set_reason": (c_int, (_states, c_char_p)),
    "corvid_states_add": (c_int, (_states, c_char_p, c_char_p, c_char_p)),
}


def _load() -> Any:
    """The library as the dynamic linker finds it. Calls into it let other threads run."""
    try:
        loaded = ctypes.CDLL(SONAME)
        for name, (gives, takes) in FUNCTIONS.items():
            function = getattr(loaded, name)
            function.restype = gives
            function.argtypes = takes
    except (OSError, AttributeError) as problem:
        raise ImportError(f"corvid needs the library {SONAME}: {problem}") from problem
    return loaded


lib = _load()
