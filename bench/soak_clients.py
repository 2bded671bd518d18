"""The well-behaved clients of a soak. Each function is one visit: it connects, has its requests
answered, compares every byte and leaves. WrongAnswer is the server's fault.
"""

import asyncio
import random
import time
import zlib

from soak_wire import ANSWERS, Peer, WrongAnswer, answer, get

ANSWER_PATHS = tuple(ANSWERS)
MEBIBYTE = 1 << 20
ENDLESS_LENGTH = 1 << 30
NOISE = random.Random(1).randbytes(8 * MEBIBYTE)
LETTERS = bytes(range(ord("a"), ord("z") + 1))


async def keep_alive(target, secure):
    """Requests one after the other, for every kind of answer."""
    async with target.peer(secure) as peer:
        for _ in range(20):
            path = random.choice(ANSWER_PATHS)
            await peer.send(get(path))
            await peer.expect(ANSWERS[path])
            target.count("answers")
            await asyncio.sleep(random.random() * 0.1)
        await peer.close()


async def pipeline(target, secure):
    """Small pipelines, whose answers come in order."""
    async with target.peer(secure) as peer:
        for _ in range(4):
            paths = random.choices(ANSWER_PATHS, k=random.randint(2, 8))
            await peer.send(b"".join(get(path) for path in paths))
            for path in paths:
                await peer.expect(ANSWERS[path])
                target.count("answers")
        await peer.close()


async def one_answer(target, secure):
    """A connection for one request, which the server closes."""
    async with target.peer(secure) as peer:
        await peer.send(get("/text", "Connection: close\r\n"))
        await peer.expect(ANSWERS["/text"])
        target.count("answers")
        if await asyncio.wait_for(peer.reader.read(), 10):
            raise WrongAnswer("bytes after the last answer")


def upload_body():
    """Mostly small; some of a mebibyte; few of eight, which the server keeps in a file."""
    length = random.choices((random.randint(0, 65536), MEBIBYTE, 8 * MEBIBYTE), (70, 20, 10))[0]
    start = random.randint(0, len(NOISE) - length)
    return NOISE[start:start + length]


async def upload(target, secure):
    """Uploads by length and chunked, two on one connection."""
    async with target.peer(secure) as peer:
        for is_chunked in random.sample((True, False), 2):
            body = upload_body()
            framing = "Transfer-Encoding: chunked" if is_chunked else f"Content-Length: {len(body)}"
            await peer.send(("POST /upload HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                             f"{framing}\r\n\r\n").encode())
            step = random.choice((5000, 65536, 300_000))
            for start in range(0, len(body), step):
                piece = body[start:start + step]
                await peer.send(b"%x\r\n%s\r\n" % (len(piece), piece) if is_chunked else piece)
            if is_chunked:
                await peer.send(b"0\r\n\r\n")
            await peer.expect(answer(b"%d %d" % (len(body), zlib.adler32(body))))
            target.count("answers")
            target.count("uploaded", len(body))
        await peer.close()


async def slow_sender(target, secure):
    """A head and a body, a byte at a time, by the clock, so that a busy machine makes no pause that
    the server may not bear."""
    body = b"slow"
    request = (f"POST /upload HTTP/1.1\r\nHost: 127.0.0.1\r\n"
               f"Content-Length: {len(body)}\r\n\r\n").encode() + body
    async with target.peer(secure) as peer:
        begin = time.monotonic()
        for number, byte in enumerate(request):
            await peer.send(bytes((byte,)))
            early = begin + number * 0.03 - time.monotonic()
            if early > 0:
                await asyncio.sleep(early)
        await peer.expect(answer(b"%d %d" % (len(body), zlib.adler32(body))))
        target.count("answers")
        await peer.close()


async def download(target, secure):
    """The first mebibytes of the endless answer are right; the rest is cut off by a reset."""
    async with target.peer(secure) as peer:
        await peer.send(get("/endless"))
        head = await asyncio.wait_for(peer.reader.readuntil(b"\r\n\r\n"), 20)
        if b"\r\nContent-Length: %d\r\n" % ENDLESS_LENGTH not in head:
            raise WrongAnswer(f"{head!r}")
        position = 0
        while position < 4 * MEBIBYTE:
            piece = await asyncio.wait_for(peer.reader.read(65536), 20)
            start = position % 26
            if not piece or piece != (LETTERS * (len(piece) // 26 + 2))[start:start + len(piece)]:
                raise WrongAnswer(f"{piece[:40]!r} at {position}")
            position += len(piece)
        target.count("downloaded", position)


# Visits with how many take place at once and the mean pause, in seconds, after each.
VISITS = ((keep_alive, 12, 0.3), (pipeline, 4, 0.3), (one_answer, 4, 0.15), (upload, 3, 0.5),
          (slow_sender, 6, 0.5), (download, 2, 1.0))
