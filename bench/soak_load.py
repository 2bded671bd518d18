"""The load of a soak, a process of its own: soak_load.py PLAIN-PORT TLS-PORT SEED. It answers each
line on standard input with one line of JSON: what it has counted so far. The line "stop" has all
clients leave first; the end of the input ends it at once.
"""

import asyncio
import collections
import json
import random
import sys
import time

sys.dont_write_bytecode = True

import soak_clients  # noqa: E402
import soak_hostile  # noqa: E402
from soak_wire import TROUBLE, Peer, WrongAnswer, client_context  # noqa: E402

SECURE_SHARE = 0.3
LEAVE_SECONDS = 40


class Target:
    """The server as the clients see it, and what they have counted."""

    def __init__(self, plain_port, secure_port):
        self.plain_port = plain_port
        self.secure_port = secure_port
        self.stopping = asyncio.Event()
        self.counts = collections.Counter()
        self.wrong = []
        self._context = client_context()

    def peer(self, secure, port=None, receive_buffer=None):
        self.count("connections")
        return Peer(port or (self.secure_port if secure else self.plain_port),
                    self._context if secure else None, receive_buffer)

    def count(self, what, number=1):
        self.counts[what] += number

    async def hold(self, seconds):
        """Waits so long, or until the load stops."""
        try:
            await asyncio.wait_for(self.stopping.wait(), seconds)
        except asyncio.TimeoutError:
            pass

    def report(self):
        return json.dumps({"counts": self.counts, "wrong": self.wrong[:5],
                           "wrong_count": len(self.wrong)})


async def visit_well(target, visit):
    """One visit of a well-behaved client: whatever goes wrong is the server's fault."""
    secure, begin = random.random() < SECURE_SHARE, time.monotonic()
    try:
        await visit(target, secure)
    except (WrongAnswer, *TROUBLE) as error:
        target.wrong.append(f"{visit.__name__}{' over TLS' if secure else ''} after "
                            f"{time.monotonic() - begin:.1f} s: {error!r}"[:500])


async def visit_badly(target, visit):
    """One visit of a hostile client."""
    try:
        await visit(target, random.random() < SECURE_SHARE)
    except TROUBLE:
        pass
    target.count(visit.__name__)


async def repeat(target, kind, visit, pause):
    await target.hold(random.uniform(0, 2 * pause))
    while not target.stopping.is_set():
        await kind(target, visit)
        await target.hold(random.uniform(0, 2 * pause))


async def listen(target, tasks):
    """Answers the lines of standard input until it ends."""
    reader = asyncio.StreamReader()
    loop = asyncio.get_running_loop()
    await loop.connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
    while line := await reader.readline():
        if line == b"stop\n":
            target.stopping.set()
            _, late = await asyncio.wait(tasks, timeout=LEAVE_SECONDS)
            for task in late:
                target.wrong.append(f"{task.get_name()} did not come to its end")
                task.cancel()
        for task in tasks:
            if task.done() and not task.cancelled() and task.exception():
                raise task.exception()
        print(target.report(), flush=True)


async def run(plain_port, secure_port):
    asyncio.get_running_loop().set_exception_handler(lambda *_: None)  # connections that broke
    target = Target(plain_port, secure_port)
    tasks = [asyncio.create_task(repeat(target, kind, visit, pause), name=visit.__name__)
             for kind, visits in ((visit_well, soak_clients.VISITS),
                                  (visit_badly, soak_hostile.VISITS))
             for visit, number, pause in visits for _ in range(number)]
    await listen(target, tasks)


if __name__ == "__main__":
    random.seed(int(sys.argv[3]))
    asyncio.run(run(int(sys.argv[1]), int(sys.argv[2])))
