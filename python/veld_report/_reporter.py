"""The reporter."""
from __future__ import annotations

import atexit
import ctypes
import dataclasses
import datetime
import json
import logging
import math
import os
import queue
import threading
import types
import weakref
from typing import Any, Callable, Dict, Iterable, List, Mapping, Optional, Sequence, Tuple, Type, Union

from . import _library
from ._types import (
    AnyEndpoint, Code, Count, Endpoint, EndpointStatistics, FinishedRequest, Ledger, Loss, ReporterError, Settings,
    Statistics,
)

Listener = Callable[[FinishedRequest], None]
LossListener = Callable[[Loss], None]

_api = _library.load()
_logger = logging.getLogger("veld_report")
_callback = threading.local()  # `running` is true on a thread of the library that runs a callback
_open: "weakref.WeakSet[Reporter]" = weakref.WeakSet()

# For the functions that return a code alone.
_SENTENCES: Dict[int, str] = {
    Code.INVALID_STATE: "the reporter was opened before this process was forked; open another one on another store",
    Code.NOT_INITIALIZED: "the reporter is closed; open another one",
}


def _check(code: int, sentence: str = "") -> None:
    if code < 0:
        text = ctypes.create_string_buffer(64)
        _api.code_text(code, text, len(text))
        bits = code & 0xFFFFFFFF
        raise ReporterError(bits, sentence or _SENTENCES.get(bits, "the operation failed"), text.value.decode())


def _call(function: Any, *arguments: Any) -> None:
    error = ctypes.create_string_buffer(1024)
    _check(function(*arguments, error, len(error)), error.value.decode("utf-8", "replace"))


def _invalid(sentence: str) -> ReporterError:
    return ReporterError(Code.INVALID_ARGUMENT, sentence, "0x80000046 Invalid argument")


def _text(name: str, value: Union[str, bytes, None]) -> Optional[bytes]:
    text = value.encode("utf-8", "surrogateescape") if isinstance(value, str) else value
    if text and b"\0" in text:
        raise _invalid(f"{name} contains a NUL character")
    return text


def _path(name: str, value: Optional[Path]) -> Optional[bytes]:
    return None if value is None else _text(name, os.fsencode(value))


def _texts(name: str, values: Iterable[str]) -> Any:
    texts = [_text(name, value) for value in values]
    return (ctypes.c_char_p * len(texts))(*texts)


def _number(name: str, value: float, minimum: int, maximum: int) -> int:
    """Python's numbers have no end; those of C would be cut."""
    if not minimum <= value <= maximum:
        raise _invalid(f"{name} is {value}; it must be {minimum} to {maximum}")
    return math.ceil(value)


def _limit(name: str, value: int, maximum: int = 2**32 - 1) -> int:
    """0 means no limit here, and the default in C, where the maximum means no limit."""
    return _number(name, value, 0, maximum) or maximum


def _milliseconds(seconds: float) -> int:
    return max(0, min(int(seconds * 1000), 2**32 - 1))


def _endpoints(given: Iterable[AnyEndpoint]) -> Any:
    result = []
    for each in given:
        if isinstance(each, str):
            each = Endpoint(each)
        elif not isinstance(each, Endpoint):
            try:
                each = Endpoint(**each)  # type: ignore[arg-type]
            except TypeError as error:
                raise _invalid(f"an endpoint has the members of veld_report.Endpoint: {error}") from error
        certificates = _texts("a certificate", each.certificates)
        result.append(
            _library.CEndpoint(_text("a url", each.url), _text("a consumer", each.consumer), certificates,
                               len(certificates), _text("compress", each.compress))
        )
    return (_library.CEndpoint * len(result))(*result)


def _fill(target: Any, settings: Settings) -> None:
    """Fills a CSettings, or the members of COptions that have the same names."""
    target.struct_size = ctypes.sizeof(target)
    target.endpoints = _endpoints(settings.endpoints)
    target.endpoint_count = len(settings.endpoints)
    target.packet_limit = _limit("packet_limit", settings.packet_limit)
    target.queue_limit_kb = _number("queue_limit_kb", settings.queue_limit_kb, 1, 2**32 - 1)
    target.retry_after_s = _number("retry_after", settings.retry_after, 1, 2**32 - 1)
    target.packet_limit_kb = _limit("packet_limit_kb", settings.packet_limit_kb)
    target.send_every_s = _number("send_every", settings.send_every, 0, 2**32 - 1)
    target.allow_http = settings.allow_http
    common = [_library.CMember(_text("common", name), _text("common", value)) for name, value in settings.common.items()]
    target.common = (_library.CMember * len(common))(*common)
    target.common_count = len(common)


def _ledger(ledger: Any) -> Ledger:
    return Ledger(**{name: Count(count.items, count.bytes)
                     for name, count in ((name, getattr(ledger, name)) for name, _ in ledger._fields_)})


def _json(record: object) -> bytes:
    if isinstance(record, str):
        return record.encode("utf-8", "surrogatepass")
    if dataclasses.is_dataclass(record) and not isinstance(record, type):
        record = dataclasses.asdict(record)
    try:
        return json.dumps(record, ensure_ascii=False, allow_nan=False, separators=(",", ":")).encode()
    except (TypeError, ValueError, RecursionError) as error:
        raise _invalid(f"the record can't be written as JSON: {error}") from error


def _finished(request: Any) -> FinishedRequest:
    return FinishedRequest(request.url.decode(), request.result & 0xFFFFFFFF, request.status,
                           request.endpoint.decode(), request.text.decode("utf-8", "replace"), request.records,
                           request.bytes)


def _loss(loss: Any) -> Loss:
    return Loss(loss.url.decode(), loss.reason.decode(), loss.why.decode("utf-8", "replace"),
                Count(loss.count.items, loss.count.bytes))


class _ListenerSlot:
    """Outlives the reporter, which it doesn't know."""

    def __init__(self, read: Callable[[Any], Any], listener: Optional[Callable[[Any], None]]) -> None:
        self._read = read
        self.listener = listener

    def call(self, _context: object, given: Any) -> None:
        listener = self.listener
        if listener is None:
            return
        _callback.running = True
        try:
            listener(self._read(given.contents))
        except Exception:
            _logger.exception("a listener failed")
        finally:
            _callback.running = False


class _TraceLog:
    """Brings the trace to `logging`, on a thread of its own: a handler may hold a lock while it calls the reporter, and
    the library holds one while it traces."""

    def __init__(self, logger: logging.Logger) -> None:
        self._logger = logger
        self._lines: queue.SimpleQueue[Optional[Tuple[int, bytes]]] = queue.SimpleQueue()
        threading.Thread(target=self._run, name="veld-logging", daemon=True).start()

    def call(self, _context: object, level: int, text: bytes) -> None:
        self._lines.put((level, text))

    def end(self) -> None:
        self._lines.put(None)

    def _run(self) -> None:
        for level, text in iter(self._lines.get, None):
            self._logger.log(logging.WARNING if level <= 300 else logging.DEBUG, "%s", text.decode("utf-8", "replace"))


_still_used: List[object] = []


def _close(handle: ctypes.c_void_p, deadline_ms: int, log: Optional[_TraceLog]) -> bool:
    flushed = bool(_api.close(handle, deadline_ms) == 1)
    if log:
        log.end()
    return flushed


def _free(handle: ctypes.c_void_p, deadline_ms: int, log: Optional[_TraceLog], _used: object) -> None:
    """_used: what the library may use until then."""
    _close(handle, deadline_ms, log)
    if not _api.is_closed(handle):
        _still_used.append(_used)  # a callback that hangs returns through it
    _api.free(handle)


def _collect(*arguments: Any) -> None:
    if getattr(_callback, "running", False):
        # The garbage collector works in a callback here, and closing waits for callbacks.
        threading.Thread(target=_free, args=arguments, name="veld-close").start()
    else:
        _free(*arguments)


class Reporter:
    """Records from an application to its report servers, at least once, through a store on disk.

    A record goes to memory at once, within a second to the store, and from there to the servers until they answer 200,
    across restarts and outages. Leaving a `with` block closes the reporter, and so does the end of the interpreter.

    Threads: any, for all methods. fork: in a child every method of its parent's reporter raises
    Code.INVALID_STATE, or returns False, and nothing touches the store. Times are in seconds. Failures raise
    ReporterError.
    """

    def __init__(
        self,
        store: Path,  # folder of the store; created if it doesn't exist
        endpoints: Sequence[AnyEndpoint] = (),
        *,
        packet_limit: int = Settings.packet_limit,  # for these see Settings
        queue_limit_kb: int = Settings.queue_limit_kb,
        retry_after: int = Settings.retry_after,
        packet_limit_kb: int = Settings.packet_limit_kb,
        send_every: int = Settings.send_every,
        allow_http: bool = Settings.allow_http,
        common: Mapping[str, str] = types.MappingProxyType({}),
        close_deadline: float = 2,  # of a close without one
        signing_key_file: Optional[Path] = None,  # Ed25519 private key, PEM; None: unsigned
        # Called for each finished request, on a thread of the library. It should return soon and must not close the
        # reporter. Its exceptions are logged.
        listener: Optional[Listener] = None,
        # Called soon after a loss of records, for each url and reason, and then at most once a second. Otherwise like
        # the listener.
        loss_listener: Optional[LossListener] = None,
        sending_allowed: bool = True,
        stamp: bool = False,  # adds "recordId" and "recordTime" to each record that is an object
        memory_limit_records: int = 100000,  # not yet in the store; beyond it send refuses. 0: no limit
        memory_limit_bytes: int = 64 << 20,
        max_age: float = 0,  # of a record in the store; 0: no limit
        store_limit_bytes: int = 0,  # of all queues together; 0: no limit
        # Seconds until a record is in the store's file, where a crash can't lose it; 0: with the cycle that sends it.
        store_within: float = 0,
        commit_every_record: bool = False,  # each record is written by itself, not in groups of 10 ms
        sync_every_commit: bool = False,  # what is written survives a crash of the machine
        secure_delete: bool = False,  # records that have left the store are overwritten on the disk
        shared: bool = False,  # several processes may use the store, all with this set
        proxy: Optional[str] = None,  # None: from the environment; "": none
        headers: Sequence[str] = (),  # of every request, each "Name: value"
        user_agent: Optional[str] = None,
        ca_file: Optional[Path] = None,  # trusted certificates in place of the system's
        trace_level: int = 0,  # 0 nothing, 300 failures, 700 everything
        trace_file: Optional[Path] = None,
        # Gets the trace if there is no file: failures as warnings, the rest as debug messages.
        logger: logging.Logger = _logger,
    ) -> None:
        self._finished = _ListenerSlot(_finished, listener)
        self._lost = _ListenerSlot(_loss, loss_listener)
        options = _library.COptions()
        _fill(options, Settings(endpoints, packet_limit, queue_limit_kb, retry_after, packet_limit_kb, send_every,
                                allow_http, common=common))
        options.store = _path("store", store)
        options.signing_key_file = _path("signing_key_file", signing_key_file)
        options.trace_file = _path("trace_file", trace_file)
        options.trace_level = _number("trace_level", trace_level, 0, 2**32 - 1)
        options.module_path = _path("the package", _library.module_path())
        options.shared = shared
        options.proxy = _text("proxy", proxy)
        options.headers = _texts("a header", headers)
        options.header_count = len(headers)
        options.user_agent = _text("user_agent", user_agent)
        options.ca_file = _path("ca_file", ca_file)
        options.listener = _library.CListener(self._finished.call)
        options.loss_listener = _library.CLossListener(self._lost.call)
        options.memory_limit_records = _limit("memory_limit_records", memory_limit_records, 2**64 - 1)
        options.memory_limit_bytes = _limit("memory_limit_bytes", memory_limit_bytes, 2**64 - 1)
        options.max_age_ms = _number("max_age", max_age * 1000, 0, 2**63 - 1)
        options.store_limit_bytes = _limit("store_limit_bytes", store_limit_bytes, 2**64 - 1)
        options.store_within_ms = _number("store_within", store_within * 1000, 0, 2**32 - 1)
        options.commit_every_record = commit_every_record
        options.sync_every_commit = sync_every_commit
        options.secure_delete = secure_delete
        options.hold_sending = not sending_allowed
        options.stamp = stamp
        self._log = _TraceLog(logger) if trace_level and trace_file is None else None
        if self._log:
            options.log = _library.CLog(self._log.call)
        self._close_deadline = close_deadline
        self._handle = ctypes.c_void_p()
        try:
            _call(_api.open, options, self._handle)
        except ReporterError:
            if self._log:
                self._log.end()
            raise
        end = weakref.finalize(self, _collect, self._handle, _milliseconds(close_deadline), self._log,
                               (options.listener, options.loss_listener, options.log))
        end.atexit = False  # a thread that still runs then may use the handle; closing is enough
        _open.add(self)

    def send(self, record: Union[str, Mapping[str, Any], object], consumer: str = "") -> None:
        """Accepts a record: JSON text, a mapping, or an instance of a dataclass. Waits for neither disk nor network.

        `consumer` selects the endpoints; "" means all. Raises, for example, Code.INVALID_ARGUMENT for what isn't JSON,
        Code.NOT_FOUND if no endpoint has the consumer, and Code.OUT_OF_SPACE while memory is full.
        """
        text = _json(record)
        _call(_api.send_json, self._handle, _text("consumer", consumer), text, len(text))

    def flush(self, seconds: float) -> bool:
        """Starts a send cycle and waits, at most so long. True: everything that was accepted before was answered 200,
        or dropped by a rule that the statistics count. False: not yet; it isn't lost."""
        return bool(_api.flush(self._handle, _milliseconds(seconds)) == 1)

    def flush_to_store(self, seconds: float) -> bool:
        """The same, but only waits until everything is in the store's file, safe from a crash of the process."""
        return bool(_api.flush_to_store(self._handle, _milliseconds(seconds)) == 1)

    def set_settings(self, settings: Settings) -> None:
        """Replaces the settings as a whole, from the next cycle on. The queue of a url that is gone is removed with its
        records. After an exception nothing has changed."""
        given = _library.CSettings()
        _fill(given, settings)
        given.signing_key_file = _path("signing_key_file", settings.signing_key_file)
        _call(_api.set_settings, self._handle, given)

    def current_settings(self) -> Settings:
        """For dataclasses.replace, to change some of them."""
        given = _library.CSettings(struct_size=ctypes.sizeof(_library.CSettings))
        _check(_api.get_settings(self._handle, given))
        try:
            endpoints = tuple(
                Endpoint(each.url.decode(), each.consumer.decode(),
                         tuple(text.decode() for text in each.certificates[: each.certificate_count]),
                         each.compress.decode())
                for each in given.endpoints[: given.endpoint_count]
            )
            common = {each.name.decode(): each.value.decode() for each in given.common[: given.common_count]}
        finally:
            _api.free_settings(given)

        def limit(value: int) -> int:
            return 0 if value == 2**32 - 1 else value

        return Settings(endpoints, limit(given.packet_limit), given.queue_limit_kb, given.retry_after_s,
                        limit(given.packet_limit_kb), given.send_every_s, bool(given.allow_http),
                        common=common)

    def set_listener(self, listener: Optional[Listener]) -> None:
        """Replaces the listener. The previous one may still be running after the return."""
        self._finished.listener = listener

    def set_loss_listener(self, listener: Optional[LossListener]) -> None:
        self._lost.listener = listener

    def allow_sending(self, allowed: bool) -> None:
        """If False, no request starts after the return, and one in flight is cut. Records are still accepted and
        stored. The last call counts."""
        _check(_api.allow_sending(self._handle, allowed))

    def stats(self) -> Statistics:
        """What became of the records. The endpoints are counted a moment after the totals."""
        endpoints: List[EndpointStatistics] = []

        def visit(_context: object, endpoint: Any) -> None:
            each = endpoint.contents
            until = None
            if each.waits_until_ms:
                until = datetime.datetime.fromtimestamp(each.waits_until_ms / 1000, datetime.timezone.utc)
            endpoints.append(EndpointStatistics(each.url.decode(), each.consumer.decode(), _ledger(each.queue), until,
                                                each.last_status, each.last_error.decode("utf-8", "replace")))

        given = _library.CStatistics(struct_size=ctypes.sizeof(_library.CStatistics))
        _check(_api.stats(self._handle, given))
        _check(_api.endpoint_stats(self._handle, _library.CEndpointVisitor(visit), None))
        return Statistics(given.submitted, given.refused, given.in_memory, _ledger(given.total), tuple(endpoints))

    def forget(self) -> None:
        """Removes everything that waits, in memory and in the store, and leaves none of it readable on the disk."""
        _call(_api.forget, self._handle)

    def close(self, seconds: Optional[float] = None) -> bool:
        """Accepts no more records, flushes, and stops; undelivered records stay in the store. Takes at most 5 seconds
        more. True: all was flushed. A second call returns what the first one has."""
        deadline = self._close_deadline if seconds is None else seconds
        return _close(self._handle, _milliseconds(deadline), self._log)

    def __enter__(self) -> Reporter:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[types.TracebackType]) -> None:
        self.close()


@atexit.register
def _close_all() -> None:
    for reporter in list(_open):
        reporter.close()
