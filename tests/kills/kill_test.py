"""Kills a sending process and a report server with SIGKILL, again and again, over a proxy that misbehaves.

Two kinds of trials, soon and flood, measure what a crash takes (loss_trial.py). The others:

Every record carries a number. Each number that the sender knew to be in its store must reach the server, whole, and
each record that comes twice must have a reason. There are four kinds of trials: plain; records for two endpoints;
a queue that is always full, of which as many may be missing as the ledger says were evicted; and two senders that share
a store, of which one is killed at a time. The last line of each is
"rounds N, committed N, missing N, damaged N, duplicates N"; see scripts/kill-test.
"""
import argparse
import asyncio
import collections
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile

import loss_trial
from proxy import Proxy

# More than the queue of the kind full holds: 32 KiB.
MORE_THAN_A_FULL_QUEUE = 2000
# An acknowledgement is in the sender's file with its group of 512 at the latest, and the largest packet has 100
# records whose answer may have come in the moment of the kill.
MOST_REPEATED_BY_A_KILL = 511 + 100
# In seconds. It waits five, but on a slow machine the proxy sees a request later than its sender began to wait.
PATIENCE_OF_A_SENDER = 2
KINDS = ("plain", "two", "full", "shared", "soon", "flood")
LOSS_KINDS = ("soon", "flood")
FIRST_NUMBERS = {"sender": 1, "second": 1_000_000_001}


class Failure(Exception):
    pass


class Trial:
    def __init__(self, build, windows, kind, rounds, seed, folder):
        self.kind = kind
        self.senders = ["sender", "second"] if kind == "shared" else ["sender"]
        self.evicted = 0
        self.rounds = rounds
        self.random = random.Random(seed)
        self.windows = windows is not None
        self.veldrep = os.path.join(build, "bin", "veldrep")
        self.sender_program = [os.path.join(build, "tests", "kill_sender")]
        self.module = os.path.join(build, "lib", "libveld_report.so")
        self.slowness = 6 if windows else 1  # of a sender's start
        if windows:
            self.sender_program = ["wine", os.path.join(windows, "tests", "kill_sender.exe")]
            self.module = os.path.join(windows, "bin", "veld_report.dll")
        self.path = lambda name: os.path.join(folder, name)
        self.proxy = Proxy(self.random)
        self.processes = {}
        self.kills = collections.Counter()

    # Processes

    async def start_server(self, port=0):
        with open(self.path("server.log"), "w") as log:
            self.processes["server"] = await asyncio.create_subprocess_exec(
                self.veldrep, "serve", "--listen", f"127.0.0.1:{port}", "--out", self.path("stored"), "--key",
                self.path("key.pub.pem"), stdout=log, stderr=subprocess.STDOUT)

    async def server_port(self):
        for _ in range(6000):
            for line in lines_of(self.path("server.log")):
                if line.startswith("listening on "):
                    return int(line.rsplit(":", 1)[1])
            await asyncio.sleep(0.01)
        raise Failure("the server doesn't start: " + " ".join(lines_of(self.path("server.log"))))

    async def start_sender(self, name, first, **options):
        self.processes[name] = await asyncio.create_subprocess_exec(
            *self.sender_program, self.module, self.path("store"), f"http://127.0.0.1:{self.proxy.port}/in",
            self.path("key.key.pem"), self.path("notes-" + name), str(first), self.kind,
            **{"stdin": subprocess.PIPE, **options})

    async def kill(self, name):
        process = self.processes[name]
        if process.returncode is not None:
            raise Failure(f"the {name} has ended by itself, with exit code {process.returncode}")
        # What another sender repeats may come before this one's death is noticed.
        await self.proxy.next_sender()
        if self.windows and process.stdin:
            process.stdin.close()  # it answers with TerminateProcess
        else:
            process.kill()
        await process.wait()
        await self.proxy.next_sender()

    # Notes: what was tried, and what was in the store

    def noted(self, what):
        for name in self.senders:
            yield from noted(self.path("notes-" + name), what)

    def next_number(self, name):
        return next_number(self.path("notes-" + name), FIRST_NUMBERS[name])

    # Rounds

    async def wait_for_a_bad_moment(self):
        moment, seconds = self.random.choice((("any", 0.3), ("any", 0.3), ("starting", 0.015), ("forwarded", 0.003),
                                              ("answered", 0.003)))
        if moment in self.proxy.moments:  # if none comes the server is away, or stalls; as good a moment as any
            await asyncio.wait({asyncio.create_task(self.proxy.moments[moment].wait())}, timeout=0.5 * self.slowness)
        await asyncio.sleep(self.random.uniform(0, seconds * self.slowness))

    async def round(self, number):
        if number % 50 == 5:  # an answer that the sender no longer waits for, but takes
            self.proxy.late = True
            await asyncio.sleep(6.5)
        if self.random.random() < 0.1:
            await self.proxy.refuse_for(self.random.uniform(0, 0.1))
        sender = self.random.choice(self.senders)
        victims = self.random.choices(([sender], ["server"], [sender, "server"]), (5, 3, 2))[0]
        await self.wait_for_a_bad_moment()
        for name in victims:
            await self.kill(name)
            self.kills[name] += 1
        if "server" in victims:
            await asyncio.sleep(self.random.uniform(0, 0.1))
            await self.start_server(self.proxy.server_port)
        if sender in victims:
            await self.start_sender(sender, self.next_number(sender))

    async def run(self):
        subprocess.run([self.veldrep, "keygen", self.path("key")], check=True, stdout=subprocess.DEVNULL)
        await self.start_server()
        self.proxy.server_port = await self.server_port()
        await self.proxy.listen()
        try:
            for name in self.senders:
                await self.start_sender(name, FIRST_NUMBERS[name])
            if self.kind == "full":
                await self.fill_the_queue()
            for number in range(self.rounds):
                await self.round(number)
            for name in self.senders:
                await self.kill(name)
            await self.drain()
        finally:
            for process in self.processes.values():
                if process.returncode is None:
                    process.kill()
                    await process.wait()
            await self.proxy.close()

    async def fill_the_queue(self):
        """Until the queue has overflowed: on a slow machine its sender may be killed before that."""
        self.proxy.passing.clear()
        for _ in range(6000):
            if sum(1 for _ in self.noted("c")) >= MORE_THAN_A_FULL_QUEUE:
                break
            await asyncio.sleep(0.01)
        self.proxy.passing.set()

    async def drain(self):
        """The kills have stopped; what the store holds goes through."""
        self.proxy.disturbing = False
        await self.server_port()
        await self.start_sender("sender", 0, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        sender, server = self.processes["sender"], self.processes["server"]
        output, _ = await asyncio.wait_for(sender.communicate(), 260)
        print("drained:", output.decode().strip())
        if sender.returncode != 0:
            raise Failure("the store didn't drain, or its ledger tells of a loss")
        self.evicted, rejected = (int(word.strip(b",")) for word in output.split()[-3::2])
        if (self.evicted != 0) != (self.kind == "full"):
            raise Failure(f"{self.evicted} records were evicted")
        # One at a time is refused before there is room for it.
        if rejected > (self.kills["sender"] + 1 if self.kind == "full" else 0):
            raise Failure(f"{rejected} records were rejected")
        server.terminate()
        await server.wait()
        check = subprocess.run([self.veldrep, "store", "--store", self.path("store"), "check"], capture_output=True)
        if check.returncode != 0:
            raise Failure("the store is damaged: " + check.stdout.decode())
        aside = [name for name in os.listdir(self.path("store")) if ".damaged-" in name]
        if aside:
            raise Failure("a store was moved aside: " + " ".join(aside))

    # Judgement

    def judge(self):
        tried, committed = set(self.noted("t")), set(self.noted("c"))
        numbers = [number_of(line) for line in lines_of(self.path("stored"))]
        stored = collections.Counter(number for number in numbers if number in tried)
        damaged = len(numbers) - stored.total()
        missing = max(0, sum(number not in stored for number in committed) - self.evicted)
        reasons = self.reasons(stored)
        duplicates = stored.total() - len(stored)
        killed = sum(self.kills[name] for name in self.senders)
        print(f"{self.kind}: {killed} kills of a sender, {self.kills['server']} of the server; "
              f"{len(self.proxy.deliveries)} requests reached the server whole; the proxy's doings: "
              + ", ".join(f"{fault} {count}" for fault, count in sorted(self.proxy.faults.items())))
        print("duplicates by reason: " + (", ".join(f"{why} {n}" for why, n in sorted(reasons.items())) or "none"))
        print(f"rounds {self.rounds}, committed {len(committed)}, missing {missing}, damaged {damaged}, "
              f"duplicates {duplicates}")
        return not (missing or damaged or any(why.startswith("UNEXPLAINED") for why in reasons))

    def reasons(self, stored):
        """Why records came twice: each time but the last, their request or its answer was lost."""
        reasons = collections.Counter()
        of_number = collections.defaultdict(list)
        for delivery in self.proxy.deliveries:
            if delivery.status not in (None, 200):
                reasons[f"UNEXPLAINED answer {delivery.status}"] += 1
            for number in delivery.numbers:
                of_number[number].append(delivery)
        repeated = collections.Counter()  # by a sender's death, for each sender
        for number, count in stored.items():
            deliveries = of_number[number]
            pairs = list(zip(deliveries, deliveries[1:]))
            if count > len(deliveries):
                reasons["UNEXPLAINED stored more often than sent"] += count - len(deliveries)
            if count < sum(delivery.status == 200 for delivery in deliveries):
                reasons["UNEXPLAINED answered 200 and not stored"] += 1
            found = sorted(reason(*pair) for pair in pairs)
            repeated.update(first.sender for first, then in pairs if first.answered and killed_between(first, then))
            # Not each request that has reached the server was stored: it may have been killed before that.
            reasons.update(found[:count - 1])
        for sender, count in repeated.items():
            if count > MOST_REPEATED_BY_A_KILL:
                reasons[f"UNEXPLAINED {count} repeated by one kill"] += 1
        return reasons


def reason(first, then):
    if first.status is None:
        return "server killed, or cut off, before it answered"
    if not first.answered:
        return "answer lost on its way"
    if first.took > PATIENCE_OF_A_SENDER or then.at < first.at + first.took:
        return "answer later than the sender waits"
    if killed_between(first, then):
        return "sender killed before the acknowledgement was in its file"
    return "UNEXPLAINED sent again though answered"


def killed_between(first, then):
    """Of two senders, the one that goes on may have connected first; a dead one's request may come last."""
    return first.sender != then.sender or first.sender != then.begun


def number_of(line):
    """The number of a record that is exactly as it was sent, or None."""
    try:
        number = json.loads(line)["number"]
        text = f"{number}-" * (number % 40)
    except (ValueError, KeyError, TypeError):
        return None
    return number if line == f'{{"number":{number},"text":"{text}"}}' else None


def noted(path, what):
    """The numbers of which a sender's notes say what."""
    for line in lines_of(path):
        kind, first, last = line.split()
        if kind == what:
            yield from range(int(first), int(last) + 1)


def next_number(path, first):
    """The number after all that a sender has noted, or first."""
    return max((int(line.split()[2]) + 1 for line in lines_of(path)[-2:]), default=first)


def lines_of(path):
    try:
        with open(path, encoding="utf-8", errors="replace", newline="\n") as file:
            return file.read().split("\n")[:-1]
    except FileNotFoundError:
        return []


def main():
    parser = argparse.ArgumentParser(prog="kill-test")
    parser.add_argument("--rounds", type=int, default=200, help="how many times something is killed")
    parser.add_argument("--kind", choices=KINDS, help="only this kind of trial; otherwise the rounds are shared out")
    parser.add_argument("--seed", type=int, default=None, help="of what is done and when, as far as that goes")
    parser.add_argument("--build", required=True, help="build folder with the programs")
    parser.add_argument("--windows", help="build folder with the sender for Windows, which runs under Wine")
    arguments = parser.parse_args()
    seed = random.randrange(1 << 32) if arguments.seed is None else arguments.seed
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    # What a crash takes under Wine says nothing of Windows.
    every = [kind for kind in KINDS if not (arguments.windows and kind in LOSS_KINDS)]
    kinds = [arguments.kind] if arguments.kind else every
    good = [run(kind, arguments.build, arguments.windows, -(-arguments.rounds // len(kinds)), seed) for kind in kinds]
    return 0 if all(good) else 1


def run(kind, build, windows, rounds, seed):
    if kind in LOSS_KINDS:
        return loss_trial.run(kind, os.path.abspath(build), rounds, random.Random(seed))
    folder = tempfile.mkdtemp(prefix="kill_test.")
    print(f"seed {seed}; a failure leaves its files in {folder}", flush=True)
    trial = Trial(os.path.abspath(build), windows and os.path.abspath(windows), kind, rounds, seed, folder)
    good = True
    try:
        asyncio.run(trial.run())
    except Failure as failure:
        print("kill-test:", failure, file=sys.stderr, flush=True)
        good = False
    good = trial.judge() and good
    if good:
        shutil.rmtree(folder)
    return good


if __name__ == "__main__":
    sys.exit(main())
