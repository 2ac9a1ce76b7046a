"""Statistics from an application to report servers, at least once.

    import veld_report

    with veld_report.Reporter(store="store", endpoints=[{"url": "http://127.0.0.1:8080/v1"}]) as reporter:
        reporter.send({"version": "4.2.0", "startupMs": 312, "firstRun": True})
        delivered = reporter.flush(5)
"""
from ._reporter import Listener, LossListener, Reporter
from ._types import (
    AnyEndpoint, Code, Count, Endpoint, EndpointStatistics, FinishedRequest, Ledger, Loss, ReporterError, Settings,
    Statistics,
)

__all__ = [
    "AnyEndpoint", "Code", "Count", "Endpoint", "EndpointStatistics", "FinishedRequest", "Ledger", "Listener",
    "Loss", "LossListener", "Reporter", "ReporterError", "Settings", "Statistics",
]
