"""Sends one record: first.py STORE URL"""
import sys

import veld_report

store, url = sys.argv[1:]
with veld_report.Reporter(store=store, endpoints=[{"url": url}]) as reporter:
    reporter.send({"version": "4.2.0", "startupMs": 312, "firstRun": True})
    delivered = reporter.flush(5)
sys.exit(0 if delivered else 1)
