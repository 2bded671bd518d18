"""The hostile clients of a soak. Each function is one visit, which leaves by a reset where it does
not close. Whatever happens to such a client is right, as long as the others do not suffer.
"""

import asyncio
import random
import ssl

from soak_wire import TROUBLE, get, new_socket, reset_on_close

UPLOAD = b"POST /upload HTTP/1.1\r\nHost: 127.0.0.1\r\n"
CHUNKED = UPLOAD + b"Transfer-Encoding: chunked\r\n\r\n"
# A stop in each state of reading a request.
STOPS = (
    b"", b"G", b"GET /te", b"GET /text HTTP/1.1\r", b"GET /text HTTP/1.1\r\n",
    b"GET /text HTTP/1.1\r\nHost: 127", b"GET /text HTTP/1.1\r\nHost: 127.0.0.1\r\n",
    get("/text") + b"GET /te", UPLOAD + b"Content-Length: 100000\r\n\r\n",
    UPLOAD + b"Content-Length: 100000\r\n\r\n" + b"x" * 50000,
    UPLOAD + b"Content-Length: 8000000\r\n\r\n" + b"x" * 6_000_000,
    CHUNKED, CHUNKED + b"10", CHUNKED + b"10\r\n", CHUNKED + b"10\r\n1234",
    CHUNKED + b"4\r\n1234", CHUNKED + b"4\r\n1234\r\n", CHUNKED + b"0\r\n",
    CHUNKED + b"0\r\nTrailer: x", CHUNKED + b"0\r\nTrailer: x\r\n",
    CHUNKED + b"zz\r\n", CHUNKED + b"fffffffffffffffff\r\n", CHUNKED + b"3\r\n1234\r\n",
    get("/never"), get("/later"), UPLOAD + b"Content-Length: -1\r\n\r\n",
)


async def stop(target, secure):
    """Holds still in one state of reading, then leaves in one of three ways."""
    async with target.peer(secure) as peer:
        await asyncio.wait_for(peer.send(random.choice(STOPS)), 10)
        await target.hold(random.choice((0.1, 1, 3, 12)))
        leave = random.choice(("reset", "close", "half-close"))
        if leave == "close":
            await peer.close()
        elif leave == "half-close" and not secure:
            await peer.half_close()
            await peer.read_until_end(5)


async def half_close(target, _):
    """Its own end first, then what is still to come."""
    async with target.peer(False) as peer:
        await peer.send(get(random.choice(("/text", "/later", "/chunked"))) * random.randint(1, 3))
        await peer.half_close()
        await peer.read_until_end(5)


async def reset_in_answer(target, secure):
    """Reads a part of a long answer."""
    async with target.peer(secure) as peer:
        await peer.send(get(random.choice(("/endless", "/chunked", "/later"))) * 3)
        async with asyncio.timeout(5):
            await peer.reader.read(random.choice((1, 1000, 60000)))
        if random.random() < 0.5:
            await target.hold(random.random())


async def many_lines(target, secure):
    """One header line above the limit."""
    async with target.peer(secure) as peer:
        lines = b"".join(b"X-%d: x\r\n" % number for number in range(100))
        await peer.send(b"GET /text HTTP/1.1\r\n" + lines + b"\r\n")
        await peer.read_until_end(5)


async def endless_line(target, secure):
    """A line without an end."""
    async with target.peer(secure) as peer:
        await peer.send(b"GET /")
        for _ in range(10):
            await peer.send(b"a" * 4000)
            await asyncio.sleep(0.01)
        await peer.read_until_end(5)


async def noise(target, secure):
    """Any bytes at all."""
    async with target.peer(secure) as peer:
        await peer.send(random.randbytes(random.randint(1, 5000)))
        await peer.send(b"\r\n\r\n")
        await peer.read_until_end(1)


def client_hello():
    """The first flight of a true handshake."""
    outgoing = ssl.MemoryBIO()
    context = ssl.create_default_context()
    context.check_hostname = False
    handshake = context.wrap_bio(ssl.MemoryBIO(), outgoing)
    try:
        handshake.do_handshake()
    except ssl.SSLWantReadError:
        pass
    return outgoing.read()


CLIENT_HELLO = client_hello()


async def bad_handshake(target, _):
    """A handshake that is cut off, spoilt, or goes on with something else, to the TLS port."""
    hello = bytearray(CLIENT_HELLO)
    kind = random.choice(("cut", "spoilt", "then noise", "then nothing", "noise", "plain"))
    if kind == "cut":
        del hello[random.randint(1, len(hello) - 1):]
    elif kind == "spoilt":
        for _ in range(8):
            hello[random.randint(0, len(hello) - 1)] = random.randint(0, 255)
    elif kind == "then noise":
        hello += random.randbytes(200)
    elif kind == "noise":
        hello = random.randbytes(500)
    elif kind == "plain":
        hello = get("/text")
    async with target.peer(False, port=target.secure_port) as peer:
        await peer.send(bytes(hello))
        async with asyncio.timeout(1):
            await peer.reader.read(4096)
        await target.hold(random.choice((0, 0, 1, 4)))
        if random.random() < 0.5:
            await peer.close()


async def tls_on_plain(target, _):
    """A handshake to the plain port."""
    async with target.peer(False) as peer:
        await peer.send(CLIENT_HELLO)
        await peer.read_until_end(2)


async def idle(target, secure):
    """Many of these at a time: an answer perhaps, then nothing for long."""
    async with target.peer(secure) as peer:
        if random.random() < 0.5:
            await peer.send(get("/text"))
        await target.hold(random.uniform(1, 15))
        if random.random() < 0.5:
            await peer.close()


async def never_read(target, secure):
    """Asks for a gibibyte and reads none of it."""
    async with target.peer(secure, receive_buffer=4096) as peer:
        peer.writer.transport.pause_reading()
        await peer.send(get("/endless"))
        await target.hold(random.uniform(2, 15))


async def flood(target, secure):
    """Pipelines without reading, as many as the server takes."""
    async with target.peer(secure, receive_buffer=4096) as peer:
        peer.writer.transport.pause_reading()
        path = random.choice(("/text", "/chunked", "/later", "/twice"))
        async with asyncio.timeout(3):
            for _ in range(50):
                await peer.send(get(path) * 100)
        await target.hold(2)


async def burst(target, secure):
    """Connects and leaves, as fast as it goes."""
    loop = asyncio.get_running_loop()
    for number in range(200):
        with new_socket() as made:
            made.setblocking(False)
            await loop.sock_connect(made, ("127.0.0.1",
                                           target.secure_port if secure else target.plain_port))
            if number % 2 == 0:
                reset_on_close(made)
        target.count("connections")


# Visits with how many take place at once and the mean pause, in seconds, after each.
VISITS = ((stop, 30, 0.3), (half_close, 3, 0.2), (reset_in_answer, 4, 0.2), (many_lines, 2, 0.3),
          (endless_line, 2, 0.5), (noise, 3, 0.3), (bad_handshake, 6, 0.2), (tls_on_plain, 2, 0.5),
          (idle, 300, 1.0), (never_read, 16, 1.0), (flood, 3, 1.0), (burst, 2, 2.0))
HARMLESS = TROUBLE
