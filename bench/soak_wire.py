"""One connection of a soak's client, plain or TLS, and the answers of the host that are compared
byte for byte.
"""

import asyncio
import random
import re
import socket
import ssl
import struct

ANSWER_SECONDS = 20
IP_BIND_ADDRESS_NO_PORT = 24
DATE = re.compile(rb"\r\nDate: \w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d GMT")
# What the network or a server that refuses may do to a hostile client.
TROUBLE = (OSError, EOFError, asyncio.TimeoutError, asyncio.LimitOverrunError)


class WrongAnswer(Exception):
    """A well-behaved client did not get what it must get."""


def answer(body, fields=b""):
    """What the host sends without its date."""
    return (b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\nAccept-Ranges: bytes\r\n"
            b"Content-Type: text/plain; charset=utf-8\r\n%s\r\n%s" % (len(body), fields, body))


ANSWERS = {
    "/text": answer(b"Hello, world!"),
    "/later": answer(b"Later"),
    "/twice": answer(b"First"),
    "/chunked": (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\nAccept-Ranges: bytes\r\n"
                 b"Content-Type: text/plain; charset=utf-8\r\n\r\n"
                 + (b"64\r\n" + b"." * 100 + b"\r\n") * 100 + b"0\r\n\r\n"),
}


def get(path, fields=""):
    return f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n{fields}\r\n".encode()


def client_context():
    """TLS that takes the bench's own certificate."""
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def new_socket(receive_buffer=None):
    """From one of many addresses, so that ports in TIME_WAIT do not run out."""
    made = socket.socket()
    made.setsockopt(socket.IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1)
    made.bind((f"127.0.0.{random.randint(2, 250)}", 0))
    if receive_buffer:
        made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    return made


def reset_on_close(connected):
    connected.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


class Peer:
    """`async with Peer(port) as peer`: leaves by a reset, unless it was closed before."""

    def __init__(self, port, context=None, receive_buffer=None):
        self._port = port
        self._context = context
        self._receive_buffer = receive_buffer
        self.reader = self.writer = None

    async def __aenter__(self):
        made = new_socket(self._receive_buffer)
        made.setblocking(False)
        try:
            async with asyncio.timeout(ANSWER_SECONDS):
                await asyncio.get_running_loop().sock_connect(made, ("127.0.0.1", self._port))
                self.reader, self.writer = await asyncio.open_connection(
                    sock=made, ssl=self._context,
                    server_hostname="127.0.0.1" if self._context else None)
        except BaseException:
            made.close()
            raise
        return self

    async def __aexit__(self, *_):
        self.reset()

    def reset(self):
        transport = self.writer.transport
        if not transport.is_closing():
            reset_on_close(self.writer.get_extra_info("socket"))
        transport.abort()

    async def close(self):
        self.writer.close()
        try:
            await asyncio.wait_for(self.writer.wait_closed(), 5)
        except TROUBLE:
            pass  # the server may have gone first

    async def send(self, data):
        self.writer.write(data)
        await self.writer.drain()

    async def half_close(self):
        self.writer.write_eof()

    async def expect(self, wanted):
        """Reads one answer and compares it."""
        try:
            async with asyncio.timeout(ANSWER_SECONDS):
                head = await self.reader.readuntil(b"\r\n\r\n")
                received, dates = DATE.subn(b"", head)
                if received == wanted[:len(received)] and dates == 1:
                    received += await self.reader.readexactly(len(wanted) - len(received))
        except TROUBLE as error:
            raise WrongAnswer(f"{wanted[-20:]!r} did not come: {error!r}") from None
        if received != wanted or dates != 1:
            raise WrongAnswer(f"{head + received[:200]!r} instead of {wanted[:200]!r}")

    async def read_until_end(self, seconds):
        """What comes until the server closes, or so long."""
        async with asyncio.timeout(seconds):
            while await self.reader.read(65536):
                pass
