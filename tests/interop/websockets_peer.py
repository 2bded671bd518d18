"""The other end, made of Debian's python3-websockets.

    websockets_peer.py client URL     talks to an echo server, and fails when it hears something else
    websockets_peer.py server         echoes; prints its port first
"""

import asyncio
import ssl
import sys

import websockets

SIZES = (0, 1, 125, 126, 65_535, 65_536, 1_000_000)


def expect(actual, wanted):
    if actual != wanted:
        raise SystemExit(f"got {actual!r:.80}, wanted {wanted!r:.80}")


async def client(url):
    context = None
    if url.startswith("wss:"):
        context = ssl.create_default_context()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
    options = {"ssl": context, "max_size": None, "subprotocols": ["chat", "superchat"]}
    async with websockets.connect(url, **options) as socket:
        expect(socket.subprotocol, "chat")
        messages = [kind * size for size in SIZES for kind in ("ä", b"\xff")]
        for message in messages:
            await socket.send(message)
            expect(await socket.recv(), message)
        await asyncio.gather(*(socket.send(str(number)) for number in range(1000)))
        expect([await socket.recv() for _ in range(1000)], [str(n) for n in range(1000)])
        await asyncio.wait_for(await socket.ping(b"ping"), 30)
        await socket.close(4321, "enough")
        expect((socket.close_code, socket.close_reason), (4321, "enough"))
    async with websockets.connect(url, **options) as socket:
        await socket.send(["in ", "pieces"])
        try:
            expect(await socket.recv(), "an end")
        except websockets.ConnectionClosedError as closed:
            expect((closed.rcvd.code, closed.rcvd.reason), (1002, "Unexpected opcode: 0"))


async def serve(socket):
    try:
        await answer(socket)
    except websockets.ConnectionClosedError:
        pass


async def answer(socket):
    async for message in socket:
        if message == "bytes":
            await socket.send(b"\x00\xffz")
        elif message == "pieces":
            await socket.send(["in ", "pieces"])
        elif message == "ping":
            await asyncio.wait_for(await socket.ping(b"x" * 125), 30)
            await socket.send("pong")
        elif message == "headers":
            headers = socket.request_headers
            await socket.send(f"{headers['X-Test']} {socket.subprotocol}")
        elif message == "close":
            await socket.close(4321, "enough")
        else:
            await socket.send(message)


async def server():
    async with websockets.serve(serve, "127.0.0.1", 0, max_size=None,
                                subprotocols=["superchat"]) as listening:
        print(listening.sockets[0].getsockname()[1], flush=True)
        await asyncio.Future()


asyncio.run(client(sys.argv[2]) if sys.argv[1] == "client" else server())
