"""The live page in a real browser, and its figures as Prometheus reads them.

   page_browser_test.py VELDREP

Everything is on loopback and in a temporary folder. Exits with 77 if there is no chromium.
"""

import base64
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.error
import urllib.request

from prometheus_client.parser import text_string_to_metric_families

SKIPPED = 77
PATIENCE = 60
VELDREP = os.path.abspath(sys.argv.pop(1))


def eventually(what, condition):
    deadline = time.monotonic() + PATIENCE
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain for " + what)
        time.sleep(0.05)


def body(*records):
    def encoded(text):
        return base64.b64encode(text.encode()).decode()

    message = {"payload": encoded(json.dumps({"array": records})),
               "signatures": [{"protected": encoded('{"alg":"none"}\0')}]}
    return json.dumps(message).encode()


class Server:
    """veldrep serve with a page, and what sends to it."""

    def __init__(self, *options):
        self.folder = tempfile.mkdtemp()
        self.process = subprocess.Popen(
            [VELDREP, "serve", "--out", os.path.join(self.folder, "out.ndjson"), *(options or ["--page"])],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        lines = iter(self.process.stdout.readline, "")
        found = {}
        while "page" not in found:
            name, _, url = next(lines).rstrip().partition(" on ")
            found[name] = url
        self.url, self.page = found["listening"], found["page"]

    def end(self):
        self.process.terminate()
        self.process.wait(PATIENCE)
        self.process.stdout.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def send(self, *records, path="/v1/app"):
        """With the program, so that it is what users do."""
        lines = "".join(json.dumps(record) + "\n" for record in records)
        subprocess.run([VELDREP, "send", "--store", os.path.join(self.folder, "store"), "--url", self.url + path, "-"],
                       input=lines, text=True, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def post(self, data):
        request = urllib.request.Request(self.url + "/v1/raw", data, {"Content-Type": "application/json"})
        try:
            return urllib.request.urlopen(request, timeout=PATIENCE).status
        except urllib.error.HTTPError as error:
            return error.code

    def get(self, path):
        """Of the page."""
        return urllib.request.urlopen(self.page + path, timeout=PATIENCE).read().decode()


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server()
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        cls.downloads = os.path.join(cls.server.folder, "downloads")
        for argument in ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                         "--ignore-certificate-errors", "--window-size=1300,1000", "--user-data-dir=" + os.path.join(cls.server.folder, "profile")]:
            options.add_argument(argument)
        options.add_experimental_option("prefs", {"download.default_directory": cls.downloads})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.server.end()

    def setUp(self):
        self.browser.get(self.server.page)
        self.wait_text("connection", "live")

    def tearDown(self):
        complaints = [entry["message"] for entry in self.browser.get_log("browser") if entry["level"] == "SEVERE"]
        # The browser logs the refused filter, which is one of the tests.
        self.assertEqual([each for each in complaints if "filter=" not in each], [])

    def by_id(self, name):
        return self.browser.find_element(By.ID, name)

    def wait_text(self, name, text):
        eventually(f"{text} in {name}", lambda: text in self.by_id(name).text)

    def rows(self):
        return self.browser.execute_script(
            "return [...document.querySelectorAll('.row .text')].map((each) => each.textContent)")

    def filter(self, text):
        place = self.by_id("filter")
        place.send_keys(Keys.CONTROL, "a")
        place.send_keys(text or Keys.DELETE)

    def wait_rows(self, *parts):
        """Until the list has exactly a row for each part, newest first."""
        def fits():
            rows = self.rows()
            return len(rows) == len(parts) and all(part in row for part, row in zip(parts, rows))
        eventually(f"rows with {parts}, not {self.rows()}", fits)

    def test_1_records_appear_and_filters_choose(self):
        self.assertTrue(self.by_id("none").is_displayed())
        self.server.send({"name": "first one", "size": 1})
        self.server.send({"name": "second", "size": 12, "in": {"deep": True}}, path="/v1/other")
        self.wait_rows("second", "first one")
        for text, found in [("FIRST", ["first one"]), ("/v1/other", ["second"]), ("size:1", ["first one"]),
                            ('name:"first one" size:1', ["first one"]), ("in.deep:true", ["second"]),
                            ("size:3", []), ("", ["second", "first one"])]:
            self.filter(text)
            self.wait_rows(*found)
        self.filter('"open')
        self.wait_text("filter-problem", "a quote that isn't closed")
        self.filter("size:1")
        self.wait_rows("first one")
        # What comes later is chosen too.
        self.server.send({"size": 2}, {"name": "third", "size": 1})
        self.wait_rows("third", "first one")
        self.assertFalse(self.by_id("filter-problem").is_displayed())

    def test_2_the_keyboard_pauses_and_opens(self):
        self.filter("name:")
        self.wait_rows("third", "second", "first one")
        self.by_id("tab-records").send_keys("p")
        self.server.send({"name": "while it stands", "size": 3})
        self.wait_text("newer", "1 newer record")
        self.assertEqual(len(self.rows()), 3)
        self.by_id("tab-records").send_keys("p")
        self.wait_rows("while it stands", "third", "second", "first one")
        self.browser.find_element(By.CSS_SELECTOR, ".row").send_keys(Keys.DOWN)
        self.browser.switch_to.active_element.send_keys(Keys.ENTER)
        self.wait_text("json", '"name": "third"')
        facts = self.by_id("packet").text
        for text in ["/v1/app", "record 2 of 2", "Signature\nnone", '{"alg":"none"}']:
            self.assertIn(text, facts)
        self.browser.switch_to.active_element.send_keys(Keys.ESCAPE)
        self.assertFalse(self.by_id("detail").is_displayed())

    def test_3_markup_in_records_stays_text(self):
        evil = "<script>document.title='taken'</script><img src=x onerror=\"document.title='taken'\">"
        self.server.send({evil: evil, "list": [evil], "in": {evil: 1}}, path="/" + urllib.request.quote(evil))
        self.assertEqual(self.server.post(evil.encode()), 400)
        elements = "return document.querySelectorAll('main script, main img, main [onerror]').length"
        eventually("the record", lambda: any(evil in row.replace('\\"', '"') for row in self.rows()))
        self.browser.find_element(By.CSS_SELECTOR, ".row").click()
        self.wait_text("json", "<script>")
        for tab, place in [("members", "members"), ("sources", "sources"), ("refused", "refusals")]:
            self.by_id("tab-" + tab).click()
            self.wait_text(place, "<script>")
            self.assertEqual(self.browser.execute_script(elements), 0, tab)
        self.assertEqual(self.browser.title, "Report server")

    def test_4_refused_bodies_can_be_saved(self):
        data = b'{"payload":'
        self.assertEqual(self.server.post(data), 400)
        self.by_id("tab-refused").click()
        self.wait_text("refusals", "isn't valid JSON at byte 11")
        self.browser.find_element(By.LINK_TEXT, "Save body").click()
        def saved():
            names = os.listdir(self.downloads) if os.path.isdir(self.downloads) else []
            names = [name for name in names if name.endswith(".body")]
            return names and os.path.join(self.downloads, names[0])
        with open(eventually("the saved body", saved), "rb") as file:
            self.assertEqual(file.read(), data)

    def test_5_members_show_their_values(self):
        for number in range(4):
            self.server.post(body({"colour": "red" if number else "blue", "weight": number}))
        self.by_id("tab-members").click()
        Select(eventually("the path", lambda: self.by_id("paths"))).select_by_visible_text("/v1/raw")
        self.wait_text("members-note", "Of the last 4 records")
        for text in ["colour", "red\n3", "blue\n1", "weight", "0 to 3", "100 %"]:
            self.assertIn(text, self.by_id("members").text)
        self.browser.find_element(By.CSS_SELECTOR, "button.bars").click()
        self.wait_rows(*['"red"'] * 3)

    def test_6_a_thousand_a_second_are_sampled(self):
        ended = threading.Event()

        def flood():
            data = body(*({"n": number, "text": "x" * 100} for number in range(100)))
            begin = time.monotonic()
            count = 0
            while not ended.is_set():
                self.server.post(data)
                count += 1
                ended.wait(max(0, count / 12 - (time.monotonic() - begin)))

        def time_of_a_click():
            begin = time.monotonic()
            self.by_id("theme").click()
            return time.monotonic() - begin

        sender = threading.Thread(target=flood)
        quiet = time_of_a_click()
        sender.start()
        try:
            self.wait_text("sampling", "Sampling: showing 100 of ")
            # The page answers at once, as far as this machine does, and shows what came a moment ago.
            self.assertLess(time_of_a_click(), 2 + 20 * quiet)
            first = int(self.browser.execute_script("return document.querySelector('.row').dataset.number"))
            latest = "return Number(document.querySelector('.row').dataset.number)"
            eventually("later records", lambda: self.browser.execute_script(latest) > first + 3000)
            self.assertEqual(len(self.rows()), 200)
        finally:
            ended.set()
            sender.join()
        last = int(self.server.get("state").split('"records":')[1].split(",")[0])
        self.wait_text("records", f"{last:,}")

    def test_7_figures_agree_with_what_was_sent(self):
        state = json.loads(self.server.get("state"))["totals"]
        families = {family.name: family for family in text_string_to_metric_families(self.server.get("metrics"))}

        def value(name, **labels):
            return next(sample.value for family in families.values() for sample in family.samples
                        if sample.name == name and labels.items() <= sample.labels.items())

        self.assertEqual(value("veldrep_records_stored_total"), state["records"])
        self.assertEqual(value("veldrep_requests_total", status="200"), state["messages"])
        self.assertEqual(value("veldrep_requests_total", status="400"), 2)
        self.assertEqual(value("veldrep_refused_requests_total", reason="message"), 2)
        self.assertEqual(value("veldrep_refused_requests_total", reason="signature"), 0)
        self.assertEqual(value("veldrep_connections_limit"), 512)
        sink = families["veldrep_sink_seconds"]
        self.assertEqual(sink.type, "histogram")
        counts = [sample.value for sample in sink.samples if sample.name.endswith("_bucket")]
        self.assertEqual(counts, sorted(counts))
        self.assertEqual(counts[-1], value("veldrep_sink_seconds_count"))
        self.assertTrue(all(family.documentation and family.type != "unknown" for family in families.values()))

    def test_8_beyond_loopback_it_speaks_tls(self):
        pem = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "host", "tls", "server.pem")
        server = Server("--page", "0.0.0.0:0", "--page-token", "correct-horse", "--certificate", pem,
                        "--certificate-key", pem)
        try:
            self.assertTrue(server.page.startswith("https://0.0.0.0:"))
            self.browser.get(server.page.replace("0.0.0.0", "127.0.0.1"))
            self.browser.get_log("browser")  # the 401 of the form
            self.browser.find_element(By.NAME, "token").send_keys("correct-horse", Keys.ENTER)
            eventually("the page", lambda: self.browser.find_elements(By.ID, "connection"))
            self.wait_text("connection", "live")
            cookie = self.browser.get_cookie("veldrep_page")
            self.assertTrue(cookie["secure"] and cookie["httpOnly"])
        finally:
            self.browser.get("about:blank")
            server.end()


if __name__ == "__main__":
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        print("skipped: there is no chromium with its driver")
        sys.exit(SKIPPED)
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
    unittest.main(verbosity=2)
