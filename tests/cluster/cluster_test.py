"""Report servers in front of a stream of three replicas, and drains after it, while processes are killed.

What was answered 200 must be in the database once. With --quick, a drain is killed, and brokers speak TLS; otherwise
the stream's leader is killed under load, then another broker, then both come back. The last line is
"answered N, rows N, missing N, twice N, pauses S and S s"; see scripts/cluster-test.
"""
import argparse
import base64
import http.client
import json
import os
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

from brokers import Brokers, Failure, await_that

RECORDS = 20
PACKETS = 150  # of each client, in the quick trial
TLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "host", "tls")


def body_of(records):
    text = base64.b64encode(json.dumps({"array": records}).encode()).decode()
    return json.dumps({"payload": text, "signatures": [{"protected": ""}]})


class Client(threading.Thread):
    """Sends packets, one after the other, each until it is answered 200."""

    def __init__(self, name, ports, stop, limit):
        super().__init__(daemon=True)
        self.name, self.ports, self.stop, self.limit = name, ports, stop, limit
        self.answered, self.times, self.refusals = [], [], []
        self.link = None

    def run(self):
        number = 0
        while not self.stop.is_set() and number < self.limit:
            ids = [f"{self.name}-{number}-{i}" for i in range(RECORDS)]
            body = body_of([{"recordId": each, "text": "x" * 100} for each in ids])
            while not self.post(body, f"/{number % 5}"):
                if self.stop.wait(0.05):
                    return
            self.answered += ids
            self.times.append(time.monotonic())
            number += 1

    def post(self, body, path):
        try:
            if not self.link:
                self.link = http.client.HTTPConnection("127.0.0.1", self.ports[0], timeout=10)
            self.link.request("POST", path, body, {"Content-Type": "application/json"})
            answer = self.link.getresponse()
            text = answer.read().decode()
            if answer.status != 200:
                self.refusals.append((answer.status, answer.headers["Retry-After"], text))
            return answer.status == 200
        except (OSError, http.client.HTTPException):
            self.link = None
            self.ports.append(self.ports.pop(0))
            return False


class Trial:
    def __init__(self, veldrep, folder, tls):
        self.veldrep = veldrep
        self.path = lambda name: os.path.join(folder, name)
        self.brokers = Brokers(folder, os.path.join(TLS, "server.pem") if tls else None)
        self.programs = {}
        self.clients = []
        self.ending = threading.Event()

    def start(self, name, *arguments):
        with open(self.path(name + ".log"), "w") as log:
            self.programs[name] = subprocess.Popen([self.veldrep, *arguments], stdout=log, stderr=log)

    def log(self, name):
        with open(self.path(name + ".log"), encoding="utf-8") as lines:
            return lines.read()

    def serve(self, name, stream):
        self.start(name, "serve", "--out", self.brokers.url(stream))
        await_that(lambda: "listening on" in self.log(name), name + " listens")
        return int(self.log(name).split("listening on ")[1].split("\n")[0].rsplit(":", 1)[1])

    def drain(self, name, stream, *options):
        self.start(name, "drain", "--from", self.brokers.url(stream), "--out", self.path("rows.sqlite"), *options)

    def send(self, ports, limit):
        for i in range(4):
            order = ports[i % len(ports):] + ports[:i % len(ports)]
            self.clients.append(Client(f"client{i}", order, self.ending, limit))
            self.clients[-1].start()

    def wait(self, name, seconds=60):
        try:
            return self.programs.pop(name).wait(seconds)
        except subprocess.TimeoutExpired as error:
            raise Failure(f"{name} doesn't end: {self.log(name)}") from error

    def end(self, name):
        self.programs[name].send_signal(signal.SIGTERM)
        if self.wait(name) != 0:
            raise Failure(f"{name} fails: {self.log(name)}")

    def answers(self):
        return sorted(each for client in self.clients for each in client.times)

    def rows(self):
        with sqlite3.connect(self.path("rows.sqlite"), timeout=20) as database:
            if not database.execute("select 1 from sqlite_master where name = 'records'").fetchall():
                return []
            return [row[0] for row in database.execute("select id from records")]

    def stop(self):
        self.ending.set()
        for process in self.programs.values():
            process.kill()
            process.wait()
        self.brokers.stop()

    def await_answers(self, what):
        count = len(self.answers())
        await_that(lambda: len(self.answers()) > count + 20, what, 60)

    def require(self, condition, what):
        if not condition:
            raise Failure(what)

    # Trials

    def quick(self):
        await_that(self.brokers.is_ready, "the cluster is ready")
        stream = "trial?replicas=3&partitions=2&tls=" + os.path.join(TLS, "authority.pem")
        self.serve("trusting nobody", "trial?tls=" + os.path.join(TLS, "other.pem"))
        self.require("certificate" in self.log("trusting nobody"), "no sentence: " + self.log("trusting nobody"))
        port = self.serve("server", stream)
        self.send([port, self.serve("second", stream)], PACKETS)
        found = self.brokers.streams()
        self.require(all(found[name]["config"]["num_replicas"] == 3 for name in ("trial-1", "trial-2")),
                     f"not two streams of three replicas: {found}")
        client = Client("probe", [port], self.ending, 0)
        client.post(body_of([{"text": "x" * 1_100_000}]), "/0")
        self.require([each[0] for each in client.refusals] == [413], f"a large packet gets {client.refusals}")
        self.drain("killed", stream)
        await_that(lambda: len(self.rows()) > 500, "rows arrive")
        self.programs["killed"].kill()
        self.wait("killed")
        self.brokers.publish("trial-1.poison", "hello")
        for each in self.clients:
            each.join()
        self.drain("drain", stream, "--idle", "1")
        self.drain("beside", stream, "--idle", "1")
        codes = [self.wait("drain"), self.wait("beside")]
        logs = self.log("drain") + self.log("beside")
        self.require(codes == [0, 0] and logs.count("isn't a packet") == 1, f"drains end with {codes}: {logs}")
        return []

    def whole(self, seconds):
        await_that(self.brokers.is_ready, "the cluster is ready")
        stream = "trial?replicas=3"
        self.send([self.serve("server", stream), self.serve("second", stream)], 1_000_000)
        self.drain("drain", "trial")
        self.drain("beside", "trial")
        self.await_answers("packets are stored")
        pauses = []
        for _ in range(2):
            time.sleep(seconds / 4)  # under load
            # The second is another: the first hasn't come back.
            await_that(lambda: self.brokers.leader("trial"), "the stream has a leader")
            name = self.brokers.leader("trial") if not pauses else self.follower()
            begin = time.monotonic()
            self.brokers.kill(name)
            if not pauses:
                self.await_answers("packets are stored without the leader")
            else:
                # One broker of three is no majority: nothing may be answered 200 until one comes back.
                await_that(lambda: self.refused_since(begin), "senders are answered 503")
                for each in set(self.brokers.names) - set(self.brokers.running):
                    self.brokers.start(each)
                self.await_answers("packets are stored with all three")
            pauses.append(self.longest_pause(begin))
        time.sleep(seconds / 4)
        self.ending.set()
        for each in self.clients:
            each.join()
        self.end("drain")
        self.end("beside")
        self.drain("last", "trial", "--idle", "2")
        self.require(self.wait("last") == 0, "the last drain fails: " + self.log("last"))
        for name in ("server", "second"):
            self.end(name)
            for line in self.log(name).splitlines():
                print(f"{name}: {line}")
        return pauses

    def follower(self):
        return next(name for name in self.brokers.running if name != self.brokers.leader("trial"))

    def refused_since(self, begin):
        """What the brokers had taken before may still be answered for a while."""
        quiet = time.monotonic() - 2
        return begin < quiet and not any(each > quiet for each in self.answers()) and any(
            each[:2] == (503, "1") for client in self.clients for each in client.refusals)

    def longest_pause(self, begin):
        times = [each for each in self.answers() if each > begin - 1]
        return max(b - a for a, b in zip(times, times[1:]))

    def judge(self, pauses):
        answered = {each for client in self.clients for each in client.answered}
        rows = self.rows()
        missing, twice = answered - set(rows), len(rows) - len(set(rows))
        for each in sorted(missing)[:10]:
            print("missing: " + each)
        took = "".join(f", a pause of {each:.1f} s" for each in pauses)
        print(f"answered {len(answered)}, rows {len(rows)}, missing {len(missing)}, twice {twice}{took}")
        return 0 if answered and not missing and twice == 0 else 1


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with tempfile.TemporaryDirectory(prefix="veld-cluster-") as folder:
        trial = Trial(os.path.join(options.build, "bin", "veldrep"), folder, options.quick)
        try:
            return trial.judge(trial.quick() if options.quick else trial.whole(options.seconds))
        except Failure as failure:
            print(f"cluster_test: {failure}", file=sys.stderr)
            for name in list(trial.programs):
                print(f"{name}: {trial.log(name)}", file=sys.stderr)
            return 1
        finally:
            trial.stop()


if __name__ == "__main__":
    sys.exit(main())
