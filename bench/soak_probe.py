"""The probe of a soak, a process of its own: soak_probe.py PLAIN-PORT TLS-PORT. A well-behaved
client that asks twenty times a second and measures how long each answer takes: on a connection that
stays, on new ones, on new ones with TLS. It answers each line on standard input with one line of
JSON: the milliseconds measured since the last, and what went wrong.
"""

import itertools
import json
import socket
import sys
import threading
import time

sys.dont_write_bytecode = True

from soak_wire import ANSWERS, DATE, client_context, get  # noqa: E402

PATIENCE_SECONDS = 5
PERIOD_SECONDS = 0.05


def ask(connection, fields=""):
    connection.sendall(get("/text", fields))
    wanted, received = ANSWERS["/text"], b""
    while not received.endswith(wanted[-20:]):
        piece = connection.recv(4096)
        if not piece:
            raise ConnectionError(f"the answer ended after {received!r}")
        received += piece
    if DATE.sub(b"", received) != wanted:
        raise ConnectionError(f"{received!r} instead of {wanted!r}")


class Probe:
    """Measures in one thread and tells in another."""

    def __init__(self, plain_port, secure_port):
        self._plain_port = plain_port
        self._secure_port = secure_port
        self._context = client_context()
        self._staying = None
        self._lock = threading.Lock()
        self._times, self._wrong = [], []

    def run(self):
        for number in itertools.count():
            begin = time.monotonic()
            wrong = self._try(number)
            took = time.monotonic() - begin
            with self._lock:
                self._times.append(took * 1000)
                if wrong or took > PATIENCE_SECONDS:
                    self._wrong.append(wrong or f"an answer took {took:.1f} s")
            time.sleep(max(0, PERIOD_SECONDS - took))

    def take(self):
        with self._lock:
            taken = {"ms": self._times, "wrong": self._wrong}
            self._times, self._wrong = [], []
        return taken

    def _try(self, number):
        try:
            if number % 10 == 9:
                self._ask_anew(self._secure_port, self._context)
            elif number % 5 == 4:
                self._ask_anew(self._plain_port)
            else:
                if not self._staying:
                    self._staying = self._connect(self._plain_port)
                ask(self._staying)
        except OSError as error:
            self._staying = None
            return repr(error)
        return None

    def _connect(self, port):
        return socket.create_connection(("127.0.0.1", port), PATIENCE_SECONDS)

    def _ask_anew(self, port, context=None):
        with self._connect(port) as connection:
            if not context:
                ask(connection, "Connection: close\r\n")
                return
            with context.wrap_socket(connection) as secure:
                ask(secure, "Connection: close\r\n")


if __name__ == "__main__":
    probe = Probe(int(sys.argv[1]), int(sys.argv[2]))
    threading.Thread(target=probe.run, daemon=True).start()
    for _ in sys.stdin:
        print(json.dumps(probe.take()), flush=True)
