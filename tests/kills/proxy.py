"""A proxy between the sender and the report server that refuses, delays, stalls and cuts, and keeps account.

It takes HTTP apart just far enough to know what was in each request, how far it got, and how far its answer got.
"""
import asyncio
import base64
import collections
import dataclasses
import json
import re
import time


@dataclasses.dataclass
class Delivery:
    """One request that has reached the server whole."""

    numbers: list
    sender: int  # the proxy's when the connection came
    begun: int  # the proxy's when the request came
    status: int | None = None  # that the server has answered
    answered: bool = False  # the whole answer has gone to the sender
    at: float = 0.0  # when the request was here
    took: float = 0.0  # seconds from then until its answer went to the sender


class Cut(Exception):
    """The connection is to end here."""


class Proxy:
    # Likelihood of what happens to a request; None: it is just passed on.
    FAULTS = {"delay": 0.15, "stall": 0.03, "cut early": 0.04, "cut request": 0.05, "cut answer": 0.06,
              "cut in answer": 0.03, None: 0.64}

    def __init__(self, random):
        self.random = random
        self.disturbing = True
        self.passing = asyncio.Event()  # cleared: requests wait here
        self.passing.set()
        self.server_port = None
        self.sender = 0  # rises with each death of a sender
        self.deliveries = []
        self.faults = collections.Counter()
        self.late = False  # the next answer is to come later than the sender waits for it
        self.moments = {"forwarded": asyncio.Event(), "answered": asyncio.Event()}
        self.connections = set()
        self.listener = None
        self.port = 0

    async def listen(self):
        self.listener = await asyncio.start_server(self.serve, "127.0.0.1", self.port, reuse_address=True)
        self.port = self.listener.sockets[0].getsockname()[1]

    async def refuse_for(self, seconds):
        """Nobody listens for a while."""
        self.faults["refuse"] += 1
        self.listener.close()
        await asyncio.sleep(seconds)
        await self.listen()

    async def next_sender(self):
        """To be called before and after the death of a sender."""
        for _ in range(5):
            await asyncio.sleep(0)  # what it has connected before its death is accepted
        self.sender += 1

    async def close(self):
        self.listener.close()
        for task in self.connections:
            task.cancel()
        await asyncio.gather(*self.connections, return_exceptions=True)

    def draw_fault(self):
        if self.late:
            self.late = False
            return "late answer"
        if not self.disturbing:
            return None
        return self.random.choices(list(self.FAULTS), self.FAULTS.values())[0]

    async def serve(self, reader, writer):
        task = asyncio.current_task()
        self.connections.add(task)
        sender = self.sender
        upstream = None
        try:
            while True:
                head = await reader.readuntil(b"\r\n\r\n")
                body = await reader.readexactly(length_of(head))
                at = time.monotonic()
                await self.passing.wait()
                fault = self.draw_fault()
                if fault:
                    self.faults[fault] += 1
                if fault == "delay":
                    await asyncio.sleep(self.random.uniform(0, 0.03))
                elif fault == "stall":
                    await asyncio.sleep(self.random.uniform(0.1, 1))
                elif fault == "cut early":
                    raise Cut
                if not upstream:
                    upstream = await asyncio.open_connection("127.0.0.1", self.server_port)
                await self.pass_on(head, body, upstream, writer, sender, fault, at)
        except (Cut, OSError, asyncio.IncompleteReadError, asyncio.CancelledError):
            pass  # either end has gone, or the connection's time has come
        finally:
            self.connections.discard(task)
            for end in (writer, upstream and upstream[1]):
                if end:
                    end.transport.abort()

    async def pass_on(self, head, body, upstream, writer, sender, fault, at):
        from_server, to_server = upstream
        if fault == "cut request":
            await self.cut_in(head + body, to_server)
        delivery = Delivery(numbers_of(body), sender, self.sender, at=at)
        self.deliveries.append(delivery)
        to_server.write(head + body)
        await to_server.drain()
        self.pulse("forwarded")
        answer_head = await from_server.readuntil(b"\r\n\r\n")
        answer = answer_head + await from_server.readexactly(length_of(answer_head))
        delivery.status = int(answer.split(b" ", 2)[1])
        if fault == "cut answer":
            raise Cut
        if fault == "cut in answer":
            await self.cut_in(answer, writer)
        if fault == "late answer":
            await asyncio.sleep(5.5)
        # Counts as answered before it has gone: nobody can tell how much of it a dead sender has read.
        delivery.answered = True
        delivery.took = time.monotonic() - at
        writer.write(answer)
        await writer.drain()
        self.pulse("answered")

    async def cut_in(self, data, writer):
        writer.write(data[:self.random.randrange(len(data))])
        await writer.drain()
        raise Cut

    def pulse(self, moment):
        self.moments[moment].set()
        self.moments[moment].clear()


def length_of(head):
    found = re.search(rb"\r\ncontent-length: *(\d+)", head.lower())
    return int(found[1]) if found else 0


def numbers_of(body):
    payload = base64.b64decode(json.loads(body)["payload"])
    return [record["number"] for record in json.loads(payload)["array"]]
