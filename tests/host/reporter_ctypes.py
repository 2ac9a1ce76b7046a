"""The C interface from Python: LIBRARY MODULE STORE URL. Run by reporter_c_test.cpp."""
import ctypes
import sys

library, module, store, url = sys.argv[1:]
api = ctypes.CDLL(library)


class Endpoint(ctypes.Structure):
    _fields_ = [("url", ctypes.c_char_p), ("consumer", ctypes.c_char_p)]


class Options(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("store", ctypes.c_char_p),
        ("endpoints", ctypes.POINTER(Endpoint)),
        ("endpoint_count", ctypes.c_size_t),
        ("packet_limit", ctypes.c_uint32),
        ("queue_limit_kb", ctypes.c_uint32),
        ("retry_after_s", ctypes.c_uint32),
        ("signing_key_file", ctypes.c_char_p),
        ("trace_file", ctypes.c_char_p),
        ("trace_level", ctypes.c_uint32),
        ("module_path", ctypes.c_char_p),
    ]


class Statistics(ctypes.Structure):
    _fields_ = [("struct_size", ctypes.c_size_t), ("submitted", ctypes.c_uint64), ("refused", ctypes.c_uint64)] + [
        (name, ctypes.c_int64)
        for name in ("accepted", "delivered", "evicted", "rejected", "removed", "waiting", "waiting_bytes")
    ]


endpoint = Endpoint(url.encode(), None)
options = Options(
    struct_size=ctypes.sizeof(Options),
    store=store.encode(),
    endpoints=ctypes.pointer(endpoint),
    endpoint_count=1,
    module_path=module.encode(),
)
reporter = ctypes.c_void_p()
error = ctypes.create_string_buffer(256)
if api.veld_report_open(ctypes.byref(options), ctypes.byref(reporter), error, len(error)) != 0:
    sys.exit("open: " + error.value.decode())
text = '{"from":"python","text":"grüß"}'.encode()
if api.veld_report_send_json(reporter, None, text, ctypes.c_size_t(len(text)), error, ctypes.c_size_t(len(error))) != 0:
    sys.exit("send: " + error.value.decode())
if api.veld_report_flush(reporter, 30000) != 1:
    sys.exit("flush: not in time")
statistics = Statistics(struct_size=ctypes.sizeof(Statistics))
if api.veld_report_stats(reporter, ctypes.byref(statistics)) != 0 or statistics.delivered != 1:
    sys.exit("stats: %d delivered" % statistics.delivered)
if api.veld_report_close(reporter, 5000) != 1:
    sys.exit("close: not flushed")
api.veld_report_free(reporter)
