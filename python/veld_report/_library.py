"""libveld_report_c.so as ctypes sees it. The structs are those of veld_report.h, member for member."""
from __future__ import annotations

import ctypes
import os
import types
from ctypes import POINTER, c_char_p, c_int32, c_int64, c_size_t, c_uint32, c_uint64, c_void_p
from typing import Optional

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "lib")


class CEndpoint(ctypes.Structure):
    _fields_ = [
        ("url", c_char_p),
        ("consumer", c_char_p),
        ("certificates", POINTER(c_char_p)),
        ("certificate_count", c_size_t),
        ("compress", c_char_p),
        ("reserved", c_void_p * 1),
    ]


class CMember(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("value", c_char_p)]


class CSettings(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_size_t),
        ("endpoints", POINTER(CEndpoint)),
        ("endpoint_count", c_size_t),
        ("packet_limit", c_uint32),
        ("queue_limit_kb", c_uint32),
        ("retry_after_s", c_uint32),
        ("packet_limit_kb", c_uint32),
        ("send_every_s", c_uint32),
        ("allow_http", c_uint32),
        ("memory", c_void_p),
        ("signing_key_file", c_char_p),
        ("common", POINTER(CMember)),
        ("common_count", c_size_t),
    ]


class CRequest(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_size_t),
        ("url", c_char_p),
        ("result", c_int32),
        ("status", c_uint32),
        ("endpoint", c_char_p),
        ("text", c_char_p),
        ("records", c_uint64),
        ("bytes", c_uint64),
    ]


CListener = ctypes.CFUNCTYPE(None, c_void_p, POINTER(CRequest))
CLog = ctypes.CFUNCTYPE(None, c_void_p, c_uint32, c_char_p)


class CCount(ctypes.Structure):
    _fields_ = [("items", c_int64), ("bytes", c_int64)]


class CLoss(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_size_t),
        ("url", c_char_p),
        ("reason", c_char_p),
        ("why", c_char_p),
        ("count", CCount),
    ]


CLossListener = ctypes.CFUNCTYPE(None, c_void_p, POINTER(CLoss))


class COptions(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_size_t),
        ("store", c_char_p),
        ("endpoints", POINTER(CEndpoint)),
        ("endpoint_count", c_size_t),
        ("packet_limit", c_uint32),
        ("queue_limit_kb", c_uint32),
        ("retry_after_s", c_uint32),
        ("signing_key_file", c_char_p),
        ("trace_file", c_char_p),
        ("trace_level", c_uint32),
        ("module_path", c_char_p),
        ("packet_limit_kb", c_uint32),
        ("send_every_s", c_uint32),
        ("allow_http", c_uint32),
        ("shared", c_uint32),
        ("proxy", c_char_p),
        ("headers", POINTER(c_char_p)),
        ("header_count", c_size_t),
        ("user_agent", c_char_p),
        ("ca_file", c_char_p),
        ("listener", CListener),
        ("listener_context", c_void_p),
        ("memory_limit_records", c_uint64),
        ("memory_limit_bytes", c_uint64),
        ("max_age_ms", c_uint64),
        ("store_limit_bytes", c_uint64),
        ("commit_every_record", c_uint32),
        ("sync_every_commit", c_uint32),
        ("hold_sending", c_uint32),
        ("stamp", c_uint32),
        ("log", CLog),
        ("log_context", c_void_p),
        ("loss_listener", CLossListener),
        ("loss_context", c_void_p),
        ("store_within_ms", c_uint32),
        ("secure_delete", c_uint32),
        ("common", POINTER(CMember)),
        ("common_count", c_size_t),
    ]


class CLedger(ctypes.Structure):
    _fields_ = [
        (name, CCount)
        for name in (
            "accepted", "delivered", "evicted", "rejected", "removed", "waiting", "returned", "expired", "damaged",
        )
    ]


class CStatistics(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_size_t),
        ("submitted", c_uint64),
        ("refused", c_uint64),
        ("items_and_waiting_bytes", c_int64 * 7),  # `total` has them too
        ("in_memory", c_uint64),
        ("total", CLedger),
    ]


class CEndpointStatistics(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_size_t),
        ("url", c_char_p),
        ("consumer", c_char_p),
        ("last_error", c_char_p),
        ("last_status", c_uint32),
        ("reserved", c_uint32),
        ("waits_until_ms", c_int64),
        ("queue", CLedger),
    ]


CEndpointVisitor = ctypes.CFUNCTYPE(None, c_void_p, POINTER(CEndpointStatistics))

_FUNCTIONS = {
    "code_text": (None, c_int32, c_char_p, c_size_t),
    "open": (c_int32, POINTER(COptions), POINTER(c_void_p), c_char_p, c_size_t),
    "send_json": (c_int32, c_void_p, c_char_p, c_char_p, c_size_t, c_char_p, c_size_t),
    "flush": (c_int32, c_void_p, c_uint32),
    "flush_to_store": (c_int32, c_void_p, c_uint32),
    "set_settings": (c_int32, c_void_p, POINTER(CSettings), c_char_p, c_size_t),
    "get_settings": (c_int32, c_void_p, POINTER(CSettings)),
    "free_settings": (None, POINTER(CSettings)),
    "allow_sending": (c_int32, c_void_p, c_uint32),
    "forget": (c_int32, c_void_p, c_char_p, c_size_t),
    "stats": (c_int32, c_void_p, POINTER(CStatistics)),
    "endpoint_stats": (c_int32, c_void_p, CEndpointVisitor, c_void_p),
    "close": (c_int32, c_void_p, c_uint32),
    "is_closed": (c_int32, c_void_p),
    "free": (None, c_void_p),
}


def load() -> types.SimpleNamespace:
    """The functions of the C interface, without their prefix."""
    beside = os.path.join(FOLDER, "libveld_report_c.so")
    # A package without libraries of its own uses those of the system.
    library = ctypes.CDLL(beside if os.path.exists(beside) else "libveld_report_c.so.0")
    functions = types.SimpleNamespace()
    for name, (result, *arguments) in _FUNCTIONS.items():
        function = getattr(library, "veld_report_" + name)
        function.restype, function.argtypes = result, arguments
        setattr(functions, name, function)
    return functions


def module_path() -> Optional[str]:
    """Of the module in this package; None if the library has to look for it."""
    path = os.path.join(FOLDER, "libveld_report.so")
    return path if os.path.exists(path) else None
