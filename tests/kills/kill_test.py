"""Kills a sending process and a report server with SIGKILL, again and again, over a proxy that misbehaves.

Every record carries a number. Each number that the sender knew to be in its store must reach the server, whole, and
each record that comes twice must have a reason. The last line is
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

from proxy import Proxy

# An acknowledgement is in the sender's file with its group of 512 at the latest, and the largest packet has 100
# records whose answer may have come in the moment of the kill.
MOST_REPEATED_BY_A_KILL = 511 + 100


class Failure(Exception):
    pass


class Trial:
    def __init__(self, build, rounds, seed, folder):
        self.rounds = rounds
        self.random = random.Random(seed)
        self.veldrep = os.path.join(build, "bin", "veldrep")
        self.sender_program = os.path.join(build, "tests", "kill_sender")
        self.module = os.path.join(build, "lib", "libveld_report.so")
        self.path = lambda name: os.path.join(folder, name)
        self.proxy = Proxy(self.random)
        self.server = None
        self.sender = None
        self.kills = collections.Counter()

    # Processes

    async def start_server(self, port=0):
        with open(self.path("server.log"), "w") as log:
            self.server = await asyncio.create_subprocess_exec(
                self.veldrep, "serve", "--listen", f"127.0.0.1:{port}", "--out", self.path("stored"), "--key",
                self.path("key.pub.pem"), stdout=log, stderr=subprocess.STDOUT)

    async def server_port(self):
        for _ in range(1000):
            for line in lines_of(self.path("server.log")):
                if line.startswith("listening on "):
                    return int(line.rsplit(":", 1)[1])
            await asyncio.sleep(0.01)
        raise Failure("the server doesn't start: " + " ".join(lines_of(self.path("server.log"))))

    async def start_sender(self, first, **options):
        await self.proxy.next_sender()
        self.sender = await asyncio.create_subprocess_exec(
            self.sender_program, self.module, self.path("store"), f"http://127.0.0.1:{self.proxy.port}/in",
            self.path("key.key.pem"), self.path("notes"), str(first), **options)

    async def kill(self, process, name):
        if process.returncode is not None:
            raise Failure(f"the {name} has ended by itself, with exit code {process.returncode}")
        process.kill()
        await process.wait()
        self.kills[name] += 1

    # Notes: what was tried, and what was in the store

    def noted(self, what):
        for line in lines_of(self.path("notes")):
            kind, first, last = line.split()
            if kind == what:
                yield from range(int(first), int(last) + 1)

    def next_number(self):
        last = 0
        for line in lines_of(self.path("notes"))[-2:]:
            last = max(last, int(line.split()[2]))
        return last + 1

    # Rounds

    async def wait_for_a_bad_moment(self):
        moment = self.random.choice(("any", "any", "starting", "forwarded", "answered"))
        if moment == "any":
            return await asyncio.sleep(self.random.uniform(0, 0.3))
        if moment != "starting":
            try:
                await asyncio.wait_for(self.proxy.moments[moment].wait(), 0.5)
            except asyncio.TimeoutError:
                pass  # the server is away, or stalls; as good a moment as any
        await asyncio.sleep(self.random.uniform(0, 0.015 if moment == "starting" else 0.003))

    async def round(self, number):
        if number % 50 == 5:  # an answer that the sender no longer waits for, but takes
            self.proxy.late = True
            await asyncio.sleep(6.5)
        if self.random.random() < 0.1:
            await self.proxy.refuse_for(self.random.uniform(0, 0.1))
        victims = self.random.choices(("sender", "server", "both"), (5, 3, 2))[0]
        await self.wait_for_a_bad_moment()
        if victims != "server":
            await self.kill(self.sender, "sender")
        if victims != "sender":
            await self.kill(self.server, "server")
            await asyncio.sleep(self.random.uniform(0, 0.1))
            await self.start_server(self.proxy.server_port)
        if victims != "server":
            await self.start_sender(self.next_number())

    async def run(self):
        subprocess.run([self.veldrep, "keygen", self.path("key")], check=True, stdout=subprocess.DEVNULL)
        await self.start_server()
        self.proxy.server_port = await self.server_port()
        await self.proxy.listen()
        await self.start_sender(1)
        try:
            for number in range(self.rounds):
                await self.round(number)
            await self.kill(self.sender, "sender")
            self.kills["sender"] -= 1  # this one belongs to no round
            await self.drain()
        finally:
            for process in (self.sender, self.server):
                if process.returncode is None:
                    process.kill()
                    await process.wait()
            await self.proxy.close()

    async def drain(self):
        """The kills have stopped; what the store holds goes through."""
        self.proxy.disturbing = False
        await self.server_port()
        await self.start_sender(0, stdout=subprocess.PIPE)
        output, _ = await asyncio.wait_for(self.sender.communicate(), 90)
        print("drained:", output.decode().strip())
        if self.sender.returncode != 0:
            raise Failure("the store didn't drain, or its ledger tells of a loss")
        self.server.terminate()
        await self.server.wait()
        check = subprocess.run([self.veldrep, "store", "--store", self.path("store"), "check"], capture_output=True)
        if check.returncode != 0:
            raise Failure("the store is damaged: " + check.stdout.decode())
        aside = [name for name in os.listdir(self.path("store")) if ".damaged-" in name]
        if aside:
            raise Failure("a store was moved aside: " + " ".join(aside))

    # Judgement

    def judge(self):
        tried, committed = set(self.noted("t")), set(self.noted("c"))
        stored = collections.Counter()
        damaged = 0
        for line in lines_of(self.path("stored")):
            number = number_of(line)
            if number in tried:
                stored[number] += 1
            else:
                damaged += 1
        missing = sum(number not in stored for number in committed)
        reasons = self.reasons(stored)
        duplicates = sum(count - 1 for count in stored.values())
        print(f"{self.kills['sender']} kills of the sender, {self.kills['server']} of the server; "
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
            if count > len(deliveries):
                reasons["UNEXPLAINED stored more often than sent"] += count - len(deliveries)
            if count < sum(delivery.status == 200 for delivery in deliveries):
                reasons["UNEXPLAINED answered 200 and not stored"] += 1
            found = sorted(self.reason(*pair) for pair in zip(deliveries, deliveries[1:]))
            repeated.update(first.sender for first, then in zip(deliveries, deliveries[1:])
                            if first.answered and first.sender != then.sender)
            # Not each request that has reached the server was stored: it may have been killed before that.
            reasons.update(found[:count - 1])
        for sender, count in repeated.items():
            if count > MOST_REPEATED_BY_A_KILL:
                reasons[f"UNEXPLAINED {count} repeated by one kill"] += 1
        return reasons

    @staticmethod
    def reason(first, then):
        if first.status is None:
            return "server killed, or cut off, before it answered"
        if not first.answered:
            return "answer lost on its way"
        if first.sender != then.sender:
            return "sender killed before the acknowledgement was in its file"
        return "UNEXPLAINED sent again though answered"


def number_of(line):
    """The number of a record that is exactly as it was sent, or None."""
    try:
        number = json.loads(line)["number"]
        text = f"{number}-" * (number % 40)
    except (ValueError, KeyError, TypeError):
        return None
    return number if line == f'{{"number":{number},"text":"{text}"}}' else None


def lines_of(path):
    try:
        with open(path, encoding="utf-8", errors="replace", newline="\n") as file:
            return file.read().split("\n")[:-1]
    except FileNotFoundError:
        return []


def main():
    parser = argparse.ArgumentParser(prog="kill-test")
    parser.add_argument("--rounds", type=int, default=200, help="how many times something is killed")
    parser.add_argument("--seed", type=int, default=None, help="of what is done and when, as far as that goes")
    parser.add_argument("--build", required=True, help="build folder with the programs")
    arguments = parser.parse_args()
    seed = random.randrange(1 << 32) if arguments.seed is None else arguments.seed
    print(f"seed {seed}", flush=True)
    folder = tempfile.mkdtemp(prefix="kill_test.")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    good = False
    try:
        trial = Trial(os.path.abspath(arguments.build), arguments.rounds, seed, folder)
        try:
            asyncio.run(trial.run())
            good = True
        except Failure as failure:
            print("kill-test:", failure, file=sys.stderr, flush=True)
        good = trial.judge() and good
    finally:
        if good:
            shutil.rmtree(folder)
        else:
            print("kill-test: what is left is in", folder, file=sys.stderr)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
