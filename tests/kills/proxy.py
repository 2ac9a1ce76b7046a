"""A proxy between the sender and the report server that refuses, delays, stalls and cuts, and keeps account.

It takes HTTP apart just far enough to know what was in each request, how far it got, and how far its answer got.
"""
import asyncio
import base64
import json


class Delivery:
    """One request that has reached the server whole."""

    def __init__(self, numbers, sender):
        self.numbers = numbers
        self.sender = sender  # which of the sending processes
        self.status = None  # that the server has answered
        self.answered = False  # the whole answer has gone to the sender


class Cut(Exception):
    """The connection is to end here."""


class Proxy:
    # Likelihood of what happens to a request, in the order of the tests; the rest is passed on.
    FAULTS = (("delay", 0.15), ("stall", 0.03), ("cut early", 0.04), ("cut request", 0.05), ("cut answer", 0.06),
              ("cut in answer", 0.03))

    def __init__(self, random):
        self.random = random
        self.disturbing = True
        self.server_port = None
        self.sender = 0
        self.deliveries = []
        self.faults = {}
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
        self.count("refuse")
        self.listener.close()
        await asyncio.sleep(seconds)
        await self.listen()

    async def next_sender(self):
        """To be called when a sender is dead, before the next one starts."""
        for _ in range(5):
            await asyncio.sleep(0)  # what it has connected before its death is accepted
        self.sender += 1

    async def close(self):
        self.listener.close()
        for task in list(self.connections):
            task.cancel()
        await asyncio.gather(*self.connections, return_exceptions=True)

    def count(self, fault):
        self.faults[fault] = self.faults.get(fault, 0) + 1

    def draw_fault(self):
        if self.late:
            self.late = False
            return "late answer"
        at = self.random.random()
        for fault, likelihood in self.FAULTS if self.disturbing else ():
            if at < likelihood:
                return fault
            at -= likelihood
        return None

    async def serve(self, reader, writer):
        task = asyncio.current_task()
        self.connections.add(task)
        sender = self.sender
        upstream = None
        try:
            while True:
                head = await reader.readuntil(b"\r\n\r\n")
                body = await reader.readexactly(length_of(head))
                fault = self.draw_fault()
                if fault:
                    self.count(fault)
                if fault == "delay":
                    await asyncio.sleep(self.random.uniform(0, 0.03))
                elif fault == "stall":
                    await asyncio.sleep(self.random.uniform(0.1, 1))
                elif fault == "cut early":
                    raise Cut
                if not upstream:
                    upstream = await asyncio.open_connection("127.0.0.1", self.server_port)
                await self.pass_on(head, body, upstream, writer, sender, fault)
        except (Cut, OSError, asyncio.IncompleteReadError, asyncio.CancelledError):
            pass  # either end has gone, or the connection's time has come
        finally:
            self.connections.discard(task)
            for end in (writer, upstream and upstream[1]):
                if end:
                    end.transport.abort()

    async def pass_on(self, head, body, upstream, writer, sender, fault):
        from_server, to_server = upstream
        if fault == "cut request":
            whole = head + body
            to_server.write(whole[:self.random.randrange(len(whole))])
            await to_server.drain()
            raise Cut
        delivery = Delivery(numbers_of(body), sender)
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
            writer.write(answer[:self.random.randrange(len(answer))])
            await writer.drain()
            raise Cut
        if fault == "late answer":
            await asyncio.sleep(5.5)
        # Counts as answered before it has gone: nobody can tell how much of it a dead sender has read.
        delivery.answered = True
        writer.write(answer)
        await writer.drain()
        self.pulse("answered")

    def pulse(self, moment):
        self.moments[moment].set()
        self.moments[moment].clear()


def length_of(head):
    for line in head.lower().split(b"\r\n"):
        if line.startswith(b"content-length:"):
            return int(line.split(b":")[1])
    return 0


def numbers_of(body):
    payload = base64.b64decode(json.loads(body)["payload"])
    return [record["number"] for record in json.loads(payload)["array"]]
