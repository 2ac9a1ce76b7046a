"""Runs report servers with clients of veld_bench_fleet, for scripts/bench."""
import contextlib
import json
import os
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "cluster"))
from brokers import Brokers, await_that, free_ports  # noqa: E402

RECORDS = 100
TICKS = os.sysconf("SC_CLK_TCK")


class Server:
    """veldrep serve, with signatures checked. Ends with the block."""

    def __init__(self, programs, folder, out, *options):
        self.programs, self.path = os.path.abspath(programs), lambda name: os.path.join(folder, name)
        veldrep = os.path.join(self.programs, "veldrep")
        if not os.path.exists(self.path("k.key.pem")):
            subprocess.run([veldrep, "keygen", "k"], cwd=folder, check=True, stdout=subprocess.DEVNULL)
        with open(self.path("server.log"), "w") as log:
            self.process = subprocess.Popen(
                [veldrep, "serve", "--out", out, "--key", self.path("k.pub.pem"), *options], stdout=log, stderr=log)
        await_that(lambda: "listening on" in self.log(), "the server listens")
        self.port = int(self.log().split("listening on ")[1].split("\n")[0].rsplit(":", 1)[1])

    def log(self):
        with open(self.path("server.log"), encoding="utf-8") as lines:
            return lines.read()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(20)
        finally:
            self.process.kill()

    @contextlib.contextmanager
    def clients(self, connections, every_ms, records, seconds):
        """Clients that are connected; `.go()` of what this yields lets them send and returns their figures."""
        fleet = subprocess.Popen(
            [os.path.join(self.programs, "veld_bench_fleet"), str(self.port), self.path("k.key.pem"), str(connections),
             str(every_ms), str(records), str(seconds)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

        def go():
            out, errors = fleet.communicate("go\n", timeout=seconds + 60)
            if fleet.returncode != 0:
                raise RuntimeError(errors.strip())
            return json.loads(out)

        fleet.go = go
        try:
            if fleet.stdout.readline() != "connected\n":
                raise RuntimeError(fleet.communicate()[1].strip())
            yield fleet
        finally:
            fleet.kill()
            fleet.wait()


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="utf-8") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def memory_bytes(process):
    with open(f"/proc/{process.pid}/status", encoding="utf-8") as lines:
        return next(int(line.split()[1]) * 1024 for line in lines if line.startswith("VmRSS"))


def flood(server, others, seconds):
    """Packets of 100 records as fast as they are answered. CPU is that of the server and of the processes others()."""
    # Warm up the sink and its connections.
    with server.clients(32, 0, RECORDS, 2) as clients:
        clients.go()
    pids = [server.process.pid, *others()]
    before = [cpu_seconds(each) for each in pids]
    with server.clients(32, 0, RECORDS, seconds) as clients:
        figures = clients.go()
    used = [after - first for after, first in zip(map(cpu_seconds, pids), before)]
    records = figures["answered"] * RECORDS
    if records == 0 or figures["refused"] or figures["unanswered"]:
        raise RuntimeError(f"not every packet was answered 200: {figures}; {server.log()}")
    return figures | {"recordsPerSecond": records / figures["seconds"], "serverUs": used[0] / records * 1e6,
                      "othersUs": sum(used[1:]) / records * 1e6}


def file_run(programs, folder, name, seconds):
    with Server(programs, folder, os.path.join(folder, name)) as server:
        return flood(server, lambda: [], seconds)


def postgres_run(programs, folder, seconds):
    """Into a table of a PostgreSQL server with its data in the folder, which its user must be able to enter."""
    postgres, data, port = "tests/common/postgres", os.path.join(folder, "data"), str(free_ports(1)[0])
    os.mkdir(data)
    os.chmod(folder, 0o711)
    subprocess.run([postgres, "make", data], check=True)
    with open(os.path.join(folder, "postgres.log"), "w") as log:
        database = subprocess.Popen([postgres, "run", data, port], stdout=log, stderr=log)

    def processes():
        with open(f"/proc/{database.pid}/task/{database.pid}/children", encoding="utf-8") as children:
            return [database.pid, *children.read().split()]

    try:
        await_that(lambda: subprocess.run(["pg_isready", "-q", "-h", "127.0.0.1", "-p", port]).returncode == 0,
                   "the database is ready")
        url = f"postgresql://tester@127.0.0.1:{port}/postgres"
        with Server(programs, folder, url) as server:
            return flood(server, processes, seconds)
    finally:
        database.send_signal(signal.SIGINT)
        database.wait()


def stream_run(programs, folder, seconds):
    """Into a stream of three replicas on this machine."""
    brokers = Brokers(folder)
    try:
        await_that(brokers.is_ready, "the cluster is ready")
        with Server(programs, folder, brokers.url("bench?replicas=3")) as server:
            figures = flood(server, lambda: [each.pid for each in brokers.running.values()], seconds)
            folder_bytes = sum(os.path.getsize(os.path.join(top, name))
                               for top, _, names in os.walk(os.path.join(folder, "one")) for name in names)
            stored = sum(each["state"]["messages"] for each in brokers.streams().values()) * RECORDS
            memory = max(memory_bytes(each) for each in brokers.running.values())
    finally:
        brokers.stop()
    return figures | {"diskBytes": folder_bytes / stored, "brokerBytes": memory}


def fleet_run(programs, folder, connections, every_seconds, seconds):
    """Clients that each send a packet of ten records every so often."""
    with Server(programs, folder, os.path.join(folder, "fleet.ndjson"), "--connections",
                str(connections + 100)) as server:
        time.sleep(0.2)
        empty = memory_bytes(server.process)
        with server.clients(connections, every_seconds * 1000, 10, seconds) as clients:
            before = cpu_seconds(server.process.pid)
            connected = memory_bytes(server.process)
            figures = clients.go()
            used = cpu_seconds(server.process.pid) - before
            after = memory_bytes(server.process)
    packets = figures["answered"]
    if packets == 0 or figures["refused"] or figures["unanswered"]:
        raise RuntimeError(f"not every packet was answered 200: {figures}")
    return figures | {"idleBytes": (connected - empty) / connections, "usedBytes": (after - empty) / connections,
                      "packetUs": used / packets * 1e6}
