"""The package as it is installed: VELDREP EXAMPLE. Run by python_test.sh, in a folder that it may fill."""
import dataclasses
import logging
import os
import subprocess
import sys
import threading
import unittest

import veld_report
from veld_report import Code, Endpoint, Reporter, ReporterError, Settings

VELDREP, EXAMPLE = sys.argv[1:]
NOBODY = "https://127.0.0.1:1/"
PIN = "sha256//" + 43 * "A" + "="


@dataclasses.dataclass
class Started:
    version: str
    tags: list


class ReporterTest(unittest.TestCase):
    def setUp(self):
        self.store = self.id()
        self.stored = self.store + ".ndjson"
        server = subprocess.Popen([VELDREP, "serve", "--listen", "127.0.0.1:0", "--out", self.stored],
                                  stdout=subprocess.PIPE, text=True)
        self.url = server.stdout.readline().split()[-1]
        for end in (server.wait, server.terminate, server.stdout.close):
            self.addCleanup(end)

    def lines(self):
        with open(self.stored, encoding="utf-8") as file:
            return file.read().splitlines()

    def assert_fails(self, code, part, function, *arguments, **options):
        with self.assertRaises(ReporterError) as caught:
            function(*arguments, **options)
        self.assertEqual(caught.exception.code, code)
        self.assertIn(part, caught.exception.sentence)
        self.assertIn(f"(0x{code:08x} ", str(caught.exception))

    def test_example_delivers(self):
        subprocess.run([sys.executable, EXAMPLE, self.store, self.url], check=True)
        self.assertEqual(self.lines(), ['{"version":"4.2.0","startupMs":312,"firstRun":true}'])

    def test_records_arrive_or_are_refused_with_a_reason(self):
        with Reporter(self.store, [Endpoint(self.url, "product", compress="gzip")]) as reporter:
            for record in ('{"a": 1}', {"b": [None, "grüß\0"]}, Started("4.2", [1.5])):
                reporter.send(record, consumer="product")
            for record, part in (("{", "JSON"), ("\ud800", "UTF-8"), ({"a": float("nan")}, "float"),
                                 ({"a": b"x"}, "bytes"), ({"a": "\ud800"}, "surrogates")):
                self.assert_fails(Code.INVALID_ARGUMENT, part, reporter.send, record)
            self.assert_fails(Code.NOT_FOUND, '"x"', reporter.send, {}, "x")
            self.assertTrue(reporter.flush(30))
        self.assertEqual(self.lines(), ['{"a": 1}', '{"b":[null,"grüß\\u0000"]}', '{"version":"4.2","tags":[1.5]}'])
        self.assert_fails(Code.NOT_INITIALIZED, "closed", reporter.stats)

    def test_options_that_c_would_cut_are_refused(self):
        for options, part in (({"packet_limit": 2**32}, "packet_limit"), ({"queue_limit_kb": 0}, "queue_limit_kb"),
                              ({"retry_after": 0}, "retry_after"), ({"max_age": -1}, "max_age"), ({"store_within": 2}, "storeWithin"),
                              ({"user_agent": "a\0b"}, "user_agent"), ({"endpoints": [{"uri": NOBODY}]}, "uri"),
                              ({"headers": ["x"]}, "header"), ({"store": ""}, "store")):
            self.assert_fails(Code.INVALID_ARGUMENT, part, Reporter, **{"store": self.store, **options})

    def test_settings_consent_and_statistics(self):
        requests, losses = [], []
        endpoints = (Endpoint(self.url), Endpoint(NOBODY, "other", (PIN,), "zstd"))
        reporter = Reporter(self.store, [self.url], sending_allowed=False, packet_limit=0, listener=requests.append, common={"a": "ü"},
                            loss_listener=losses.append, headers=["X-Product: test"], user_agent="test", proxy="", sync_every_commit=True, secure_delete=True)
        settings = reporter.current_settings()
        self.assertEqual(settings, Settings((Endpoint(self.url),), packet_limit=0, common={"a": "ü"}))
        settings = dataclasses.replace(settings, endpoints=endpoints, send_every=1, common={"b": "c"})
        reporter.set_settings(settings)
        self.assertEqual(reporter.current_settings(), settings)
        with self.assertRaisesRegex(ReporterError, "^key file /gone"):
            reporter.set_settings(dataclasses.replace(settings, signing_key_file="/gone"))
        reporter.send('{"n":1}')
        self.assertTrue(reporter.flush_to_store(30))
        reporter.set_settings(dataclasses.replace(settings, endpoints=endpoints[:1]))
        self.assertFalse(reporter.flush(0.1))
        reporter.allow_sending(True)
        self.assertTrue(reporter.flush(30))
        statistics = reporter.stats()
        total = statistics.total
        self.assertEqual((statistics.submitted, statistics.refused, total.delivered.bytes), (1, 0, 15))
        self.assertEqual((total.accepted.items, total.delivered.items, total.removed.items), (2, 1, 1))
        (endpoint,) = statistics.endpoints
        self.assertEqual((endpoint.url, endpoint.last_status, endpoint.waits_until), (self.url, 200, None))
        reporter.allow_sending(False)
        reporter.send("{}")
        reporter.forget()
        self.assertEqual(reporter.stats().total.waiting.items, 0)
        self.assertTrue(reporter.close())
        self.assertEqual(requests, [veld_report.FinishedRequest(self.url, 0, 200, self.url, "", 1, 15)])
        self.assertCountEqual([(loss.url, loss.reason, loss.count.bytes) for loss in losses],
                              [(NOBODY, "removed", 15), (self.url, "removed", 9)])

    def test_trace_goes_to_logging(self):
        class Sends(logging.Handler):  # uses the reporter under its own lock
            def emit(self, line):
                lines.append(line.getMessage())
                if line.levelno == logging.WARNING and not sent.is_set():
                    reporter.send({"text": line.getMessage()})
                    sent.set()

        lines, sent, logger = [], threading.Event(), logging.getLogger("trace")
        logger.setLevel(logging.DEBUG)
        logger.addHandler(Sends())
        with Reporter(self.store, [NOBODY], trace_level=700, logger=logger) as reporter:
            reporter.send("{}")
            self.assertTrue(sent.wait(30))
        self.assertIn("SendStatistic", str(lines))

    def test_end_of_the_interpreter_closes(self):
        program = ("import sys, veld_report; "
                   "r = veld_report.Reporter(*sys.argv[1:2], sys.argv[2:], close_deadline=60); r.send('{}')")
        subprocess.run([sys.executable, "-c", program, self.store, self.url], check=True)
        self.assertEqual(self.lines(), ["{}"])

    def test_reporter_that_is_collected_in_its_own_callback_closes(self):
        collected = threading.Event()
        closers = []

        def collect(_):
            cycle.clear()
            # A close in here would wait for this callback. That of the thread can't end before it does.
            closers.extend(thread for thread in threading.enumerate() if thread.name == "veld-close")
            collected.set()

        reporter = Reporter(self.store, [self.url], listener=collect, sending_allowed=False, close_deadline=60)
        cycle = [reporter]
        reporter.send("{}")
        self.assertTrue(reporter.flush_to_store(30))
        reporter.allow_sending(True)
        del reporter
        self.assertTrue(collected.wait(30))
        self.assertEqual(len(closers), 1)
        closers[0].join(100)
        Reporter(self.store).close()  # nobody has the store open


unittest.main(argv=sys.argv[:1])
