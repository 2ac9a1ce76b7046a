"""Ten senders, two servers, one database: every process is killed with SIGKILL again and again, and every record is in
the database once.

The senders stamp their records, and a proxy between them and the servers misbehaves (proxy.py). The last line is
"committed N, rows N, missing N, twice N"; see scripts/exact-test. Rows that weren't committed are records that were
submitted after the last successful FlushToStore of their sender, and arrived.
"""
import argparse
import asyncio
import collections
import os
import random
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time

from kill_test import Failure, lines_of, next_number, noted, number_of
from proxy import Proxy

SENDERS = 10
POSTGRES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "common", "postgres")


class TwoServers(Proxy):
    """Each connection goes to one of the servers."""

    ports = ()
    server_port = property(lambda self: self.random.choice(self.ports), lambda self, port: None)


class Sqlite:
    name = None  # it has no process

    def __init__(self, folder):
        self.out = os.path.join(folder, "records.sqlite")

    async def make(self):
        pass

    def rows(self):
        with sqlite3.connect(self.out) as database:
            return database.execute("SELECT id, json FROM records").fetchall()


class Postgres:
    name = "database"

    def __init__(self, folder):
        self.folder = os.path.join(folder, "database")
        os.mkdir(self.folder)
        os.chmod(folder, 0o711)  # the server may run as another user
        self.port = free_port()
        self.out = f"postgresql://tester@127.0.0.1:{self.port}/postgres"

    async def make(self):
        subprocess.run([POSTGRES, "make", self.folder], check=True)

    async def start(self):
        """Until it is ready: what is left of one that was killed may be in its way for a moment."""
        process = None
        for _ in range(1000):
            if not process or process.returncode is not None:
                with open(os.path.join(self.folder, "..", "database.log"), "a") as log:
                    process = await asyncio.create_subprocess_exec(
                        POSTGRES, "run", self.folder, str(self.port), stdout=log, stderr=log)
            if subprocess.run(["pg_isready", "-q", "-h", "127.0.0.1", "-p", str(self.port)]).returncode == 0:
                return process
            await asyncio.sleep(0.05)
        raise Failure("the database doesn't start")

    def rows(self):
        text = subprocess.run(["psql", "-AtF", "\t", self.out, "-c", "SELECT id, json FROM records"], check=True,
                              stdout=subprocess.PIPE, text=True).stdout
        return [line.split("\t") for line in text.splitlines()]


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Trial:
    def __init__(self, build, database, seconds, seed, folder):
        self.seconds = seconds
        self.random = random.Random(seed)
        self.veldrep = os.path.join(build, "bin", "veldrep")
        self.sender_program = os.path.join(build, "tests", "kill_sender")
        self.module = os.path.join(build, "lib", "libveld_report.so")
        self.path = lambda name: os.path.join(folder, name)
        self.proxy = TwoServers(self.random)
        self.proxy.ports = tuple(free_port() for _ in range(2))
        self.database = (Postgres if database == "postgresql" else Sqlite)(folder)
        self.senders = [f"sender-{i}" for i in range(SENDERS)]
        self.servers = ["server-0", "server-1"]
        self.processes = {}
        self.kills = collections.Counter()

    async def start(self, name, drain=False):
        kind, _, number = name.partition("-")
        if kind == "database":
            self.processes[name] = await self.database.start()
            return
        if kind == "server":
            command = [self.veldrep, "serve", "--listen", f"127.0.0.1:{self.proxy.ports[int(number)]}",
                       "--out", self.database.out, "--key", self.path("key.pub.pem")]
        else:
            first = 0 if drain else self.next_number(name)
            command = [self.sender_program, self.module, self.path("store-" + name),
                       f"http://127.0.0.1:{self.proxy.port}/in", self.path("key.key.pem"), self.path("notes-" + name),
                       str(first), "stamped"]
        with open(self.path(name + ".log"), "a") as log:
            self.processes[name] = await asyncio.create_subprocess_exec(*command, stdout=log, stderr=log)

    async def kill(self, name):
        process = self.processes[name]
        if process.returncode is not None:
            raise Failure(f"{name} has ended by itself, with exit code {process.returncode}: "
                          + " ".join(lines_of(self.path(name + ".log"))[-1:]))
        process.kill()
        await process.wait()
        self.kills[name.partition("-")[0]] += 1

    def noted(self, what):
        for name in self.senders:
            yield from noted(self.path("notes-" + name), what)

    def next_number(self, name):
        return next_number(self.path("notes-" + name), int(name.partition("-")[2]) * 1_000_000_000 + 1)

    async def run(self):
        subprocess.run([self.veldrep, "keygen", self.path("key")], check=True, stdout=subprocess.DEVNULL)
        await self.database.make()
        await self.proxy.listen()
        databases = [self.database.name] if self.database.name else []
        try:
            for name in databases + self.servers + self.senders:
                await self.start(name)
            end = time.monotonic() + self.seconds
            # Every process once, in any order, and again.
            while time.monotonic() < end:
                for name in self.random.sample(databases + self.servers + self.senders, k=len(self.processes)):
                    await asyncio.sleep(self.random.uniform(0.05, 0.4))
                    await self.kill(name)
                    if name in self.servers:  # the other one is alone for a while
                        await asyncio.sleep(self.random.uniform(0, 0.2))
                    await self.start(name)
            self.proxy.disturbing = False
            await asyncio.gather(*(self.drain(name) for name in self.senders))
            for name in self.servers:
                self.processes[name].terminate()
                await self.processes[name].wait()
            return self.judge()
        finally:
            for process in self.processes.values():
                if process.returncode is None:
                    process.send_signal(signal.SIGINT if databases and process is self.processes["database"]
                                        else signal.SIGKILL)
                    await process.wait()
            await self.proxy.close()

    async def drain(self, name):
        await self.kill(name)
        await self.start(name, drain=True)
        if await self.processes[name].wait() != 0:
            raise Failure(f"{name}'s store didn't drain: " + lines_of(self.path(name + ".log"))[-1])

    def judge(self):
        tried, committed = set(self.noted("t")), set(self.noted("c"))
        rows = self.database.rows()
        numbers = collections.Counter(stamped_number(json, identity) for identity, json in rows)
        damaged = sum(count for number, count in numbers.items() if number not in tried)
        twice = len(rows) - len({identity for identity, _ in rows})
        twice = max(twice, numbers.total() - damaged - sum(number in tried for number in numbers))
        missing = sum(number not in numbers for number in committed)
        arrivals = collections.Counter()
        for delivery in self.proxy.deliveries:
            arrivals.update(delivery.numbers)
        print(", ".join(f"{count} kills of a {kind}" for kind, count in sorted(self.kills.items()))
              + f"; {len(self.proxy.deliveries)} requests reached a server whole; the proxy's doings: "
              + ", ".join(f"{fault} {count}" for fault, count in sorted(self.proxy.faults.items())))
        print(f"{arrivals.total() - len(arrivals)} records reached a server once more; "
              f"{sum(number not in committed for number in numbers)} rows were submitted and not yet committed when "
              f"their sender was killed; {damaged} damaged")
        print(f"committed {len(committed)}, rows {len(rows)}, missing {missing}, twice {twice}")
        return not (missing or twice or damaged) and len(committed) > 0


def stamped_number(json, identity):
    """The number of a record that is as it was sent, with its id and time at its end, or None."""
    begin, found, end = json.partition(f',"recordId":"{identity}","recordTime":"')
    return number_of(begin + "}") if found and len(end) == len('2026-03-31T09:41:07.123Z"}') else None


def main():
    parser = argparse.ArgumentParser(prog="exact-test")
    parser.add_argument("--seconds", type=int, default=60, help="how long processes are killed")
    parser.add_argument("--database", choices=("sqlite", "postgresql"), default="sqlite")
    parser.add_argument("--seed", type=int, default=None, help="of what is done and when, as far as that goes")
    parser.add_argument("--build", required=True, help="build folder with the programs")
    arguments = parser.parse_args()
    seed = random.randrange(1 << 32) if arguments.seed is None else arguments.seed
    folder = tempfile.mkdtemp(prefix="exact_test.")
    print(f"seed {seed}; a failure leaves its files in {folder}", flush=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    good = False
    try:
        good = asyncio.run(Trial(os.path.abspath(arguments.build), arguments.database, arguments.seconds, seed,
                                 folder).run())
    except Failure as failure:
        print("exact-test:", failure, file=sys.stderr, flush=True)
    if good:
        shutil.rmtree(folder)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
