"""The program under test: starting it, talking to it over bare sockets, ending it."""

import os
import re
import resource
import signal
import socket
import ssl
import subprocess
import sys
import threading

PATIENCE = 30
EXECUTABLE = os.environ["CORVANE_PROGRAM"]


def run(*arguments):
    """Runs the program to its end: exit code, standard output and standard error."""
    done = subprocess.run([EXECUTABLE, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=PATIENCE)
    return done.returncode, done.stdout, done.stderr


class Program:
    """A running server; a context manager that ends it. `errors` takes the place of the pipe that
    standard error is read from."""

    def __init__(self, *arguments, listen="127.0.0.1:0", descriptors=None, errors=None,
                 cwd=None):
        def limit():
            resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))

        self._process = subprocess.Popen(
            [EXECUTABLE, "--listen", listen, *arguments], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=errors or subprocess.PIPE, cwd=cwd,
            preexec_fn=limit if descriptors else None)
        self._lines = []
        self._has_more = threading.Condition()
        self._reader = threading.Thread(target=self._read_errors, daemon=True)
        self._reader.start()
        self.announcement = self._process.stdout.readline().decode()
        address = re.fullmatch(r"Listening on (https?)://(\[[^]]+\]|[^:]+):(\d+)/\n",
                               self.announcement)
        if not address:
            self._process.kill()
            raise AssertionError(f"the program did not start: {self.announcement!r}")
        self.scheme = address.group(1)
        self.host = address.group(2).strip("[]")
        self.port = int(address.group(3))

    def __enter__(self):
        return self

    def __exit__(self, failure, *_):
        if self._process.poll() is None:
            self._process.kill()
        self._process.wait()
        self._reader.join(PATIENCE)
        if failure:
            sys.stderr.writelines(self._lines)
        for stream in (self._process.stdout, self._process.stderr):
            if stream:
                stream.close()

    def _read_errors(self):
        # Bytes that are no text must not end the reading.
        for raw in self._process.stderr or ():
            line = raw.decode("utf-8", "replace")
            with self._has_more:
                self._lines.append(line)
                self._has_more.notify_all()

    def error_lines(self, count):
        """The first `count` lines of standard error."""
        with self._has_more:
            assert self._has_more.wait_for(lambda: len(self._lines) >= count, PATIENCE), self._lines
            return self._lines[:count]

    def all_error_lines(self):
        """Every line of standard error of a program that has ended."""
        self._reader.join(PATIENCE)
        return self._lines

    def signal(self, number):
        self._process.send_signal(number)

    def wait(self):
        """The exit code; standard output must have ended without a further word."""
        code = self._process.wait(PATIENCE)
        rest = self._process.stdout.read()
        assert rest == b"", f"more on standard output: {rest!r}"
        return code

    def end(self):
        self.signal(signal.SIGTERM)
        return self.wait()

    def connect(self):
        plain = socket.create_connection((self.host, self.port), PATIENCE)
        if self.scheme == "http":
            return plain
        context = ssl.create_default_context()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        return context.wrap_socket(plain)

    def wait_until_refused(self):
        """Returns once nobody listens any more."""
        while True:
            try:
                socket.create_connection((self.host, self.port), PATIENCE).close()
            except ConnectionError:
                return

    def exchange(self, request, connection=None):
        """Sends the bytes of `request` and gives one answer: status, fields by name, body."""
        mine = connection or self.connect()
        mine.sendall(request)
        answer = read_answer(mine, is_head=request.startswith(b"HEAD "))
        if connection is None:
            mine.close()
        return answer

    def get(self, path, method="GET", fields="", body=b""):
        head = f"{method} {path} HTTP/1.1\r\nHost: test\r\n{fields}"
        if body:
            head += f"Content-Length: {len(body)}\r\n"
        return self.exchange(head.encode() + b"\r\n" + body)


class Client:
    """A running `corvane connect`; a context manager that ends it."""

    def __init__(self, url, *arguments):
        self.process = subprocess.Popen(
            [EXECUTABLE, "connect", *arguments, url], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            stream.close()

    def send(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def read_line(self):
        """The next line of standard output; empty at its end."""
        return self.process.stdout.readline().decode().rstrip("\n")

    def end(self):
        """Ends the input; the exit code, and what standard error says, once the program has ended."""
        self.process.stdin.close()
        return self.wait()

    def wait(self):
        code = self.process.wait(PATIENCE)
        assert self.process.stdout.read() == b""
        return code, self.process.stderr.read().decode()


def read_answer(connection, is_head=False):
    stream = connection.makefile("rb", buffering=0)

    def line():
        text = b""
        while not text.endswith(b"\r\n"):
            byte = stream.read(1)
            assert byte, f"the connection ended in a head: {text!r}"
            text += byte
        return text[:-2].decode("latin-1")

    status = int(line().split(" ")[1])
    fields = {}
    while text := line():
        name, _, value = text.partition(": ")
        fields[name.lower()] = value
    body = b""
    length = 0 if is_head else int(fields.get("content-length", "0"))
    while len(body) < length:
        piece = stream.read(length - len(body))
        assert piece, "the connection ended in a body"
        body += piece
    return status, fields, body
