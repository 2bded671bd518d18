#!/usr/bin/env python3
"""Runs one example: starts it on a free port, sends requests with curl, checks the answers and ends it
with SIGTERM, after which it has to exit with 0.

    run_example.py auth|chat|files|hello|middleware|proxy|upload EXECUTABLE
    run_example.py websocket_client EXECUTABLE CHAT     with the chat as its server
"""

import contextlib
import http.server
import json
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading


def curl(url, *arguments):
    """The status and the body that curl gets."""
    command = ["curl", "-sS", "--noproxy", "*", "--max-time", "30", "-w", "\n%{http_code}",
               *arguments, url]
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    body, _, status = output.rpartition("\n")
    return int(status), body


def expect(actual, wanted):
    if actual != wanted:
        raise SystemExit(f"got {actual!r}, wanted {wanted!r}")


def auth(base):
    expect(curl(base), (200, "In front of the door\n"))
    expect(curl(base + "private")[0], 401)
    expect(curl(base + "private", "-u", "guest:open sesame"), (200, "Behind the door\n"))
    for wrong in ("guest:open", "guest:", "guest:open sesame!", "admin:open sesame", ":"):
        expect(curl(base + "private", "-u", wrong)[0], 401)


def chat(base):
    status, page = curl(base)
    expect((status, "new WebSocket" in page), (200, True))
    expect(curl(base + "elsewhere")[0], 404)
    fields = ["-H", "Connection: Upgrade", "-H", "Upgrade: websocket"]
    expect(curl(base + "chat", *fields, "-H", "Origin: http://elsewhere.example")[0], 403)
    chat_with_one_who_does_not_read(int(base.rstrip("/").rpartition(":")[2]))


def chat_with_one_who_does_not_read(port):
    """What he leaves unread must not pile up in the server: he is sent away, the others go on."""
    def join():
        member = socket.create_connection(("127.0.0.1", port), 30)
        member.sendall(b"GET /chat HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n")
        while not member.recv(4096).endswith(b"\r\n\r\n"):
            pass
        return member

    def read(member):
        length = 0
        with contextlib.suppress(ConnectionError):
            while piece := member.recv(1 << 20):
                length += len(piece)
                if length == total:
                    break
        return length

    payload = b"x" * 8192
    sent = b"\x81\xfe\x20\x00\0\0\0\0" + payload
    count = 4000
    total = count * (len(payload) + 4)
    with join() as silent, join() as talker:
        feeder = threading.Thread(target=lambda: [talker.sendall(sent) for _ in range(count)])
        feeder.start()
        expect(read(talker), total)
        feeder.join()
        expect(read(silent) < total, True)


def websocket_client(base):
    url = base.replace("http", "ws") + "chat"
    done = subprocess.run([sys.argv[2], url, "hello", "<b>wörld</b>"], capture_output=True, text=True,
                          timeout=30, check=False)
    expect((done.returncode, done.stdout, done.stderr), (0, "hello\n<b>wörld</b>\n", ""))
    wrong = subprocess.run([sys.argv[2], url, b"\xff"], capture_output=True, timeout=30, check=False)
    expect((wrong.returncode, b"UTF-8" in wrong.stderr), (1, True))
    refused = subprocess.run([sys.argv[2], url.replace("chat", "elsewhere"), "hello"],
                             capture_output=True, text=True, timeout=30, check=False)
    expect((refused.returncode, refused.stderr), (1, "No WebSocket: Error Domain=NSURLErrorDomain Code=-1011\n"))


def files(base):
    expect(curl(base + "page.html"), (200, "page\n"))
    expect(curl(base + "page.html", "-r", "1-2"), (206, "ag"))
    for hidden in (".git/config", "page/../.git", ".profile"):
        expect(curl(base + hidden, "--path-as-is")[0], 404)


def hello(base):
    expect(curl(base + "there?x=1"), (200, "Hello from /there\n"))
    expect(curl(base, "-X", "DELETE")[0], 405)


def middleware(base):
    expect(curl(base + "hello"), (200, "Hello\n"))
    for path, method, wanted in (("fails%0A%22%5C%C3%A4", "GET", 500), ("nothing", "GET", 404),
                                 ("hello", "DELETE", 405)):
        status, text = curl(base + path, "-X", method, "-D", "-")
        fields, _, body = text.partition("\n\n")
        expect((status, "application/problem+json" in fields), (wanted, True))
        expect(bool(re.search(r"^Server-Timing: total;dur=\d+\.\d{3}$", fields, re.M)), True)
        problem = json.loads(body)
        expect(problem["status"], wanted)
        if wanted == 500:
            expect(problem["title"], 'Nobody can "fails\n"\\\u00e4" here.')


def proxy(base):
    status, body = curl(base + "a%20b?x=1", "-H", "X-Forwarded-For: 10.0.0.1")
    expect((status, body), (200, "/base/a%20b?x=1 127.0.0.1 http\n"))
    expect(curl(base + "broken")[0], 502)


@contextlib.contextmanager
def upstream():
    """Another server: it tells what it was asked, and hangs up on "broken"."""
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            if "broken" in self.path:
                return
            fields = (self.headers["X-Forwarded-For"], self.headers["X-Forwarded-Proto"])
            self.send_response(200)
            self.end_headers()
            self.wfile.write(f"{self.path} {' '.join(fields)}\n".encode())

        def log_message(self, *_):
            pass
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield server
        server.shutdown()


def upload(base):
    url = base + "upload"
    expect(curl(url, "-X", "POST"), (200, "0 bytes, no body, 0 lines\n"))
    expect(curl(url, "--data-binary", "one\ntwo\n"), (200, "8 bytes, in memory, 2 lines\n"))
    with tempfile.NamedTemporaryFile() as large:
        large.write(b"a line of twenty-one\n" * 300_000)
        large.flush()
        expect(curl(url, "-T", large.name), (200, "6300000 bytes, in a file, 300000 lines\n"))
    expect(curl(base + "elsewhere")[0], 404)


def main():
    name, executable = sys.argv[1], sys.argv[-1]
    check = {"auth": auth, "chat": chat, "files": files, "hello": hello, "middleware": middleware,
             "proxy": proxy, "upload": upload, "websocket_client": websocket_client}[name]
    with tempfile.TemporaryDirectory() as directory:
        os.makedirs(os.path.join(directory, ".git"))
        os.makedirs(os.path.join(directory, "page"))
        for file, text in (("page.html", "page\n"), (".git/config", "x"), (".profile", "x")):
            with open(os.path.join(directory, file), "w", encoding="ascii") as content:
                content.write(text)
        if name == "proxy":
            with upstream() as server:
                run(check, [executable, "0", f"http://127.0.0.1:{server.server_port}/base"])
        else:
            run(check, [executable, "0", directory])


def run(check, command):
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        try:
            line = process.stdout.readline()
            address = re.fullmatch(r"Listening on (http://localhost:\d+/)\n", line)
            if not address:
                raise SystemExit(f"the example did not start: {line!r}")
            check(address.group(1))
            process.send_signal(signal.SIGTERM)
            expect(process.wait(timeout=30), 0)
        finally:
            if process.poll() is None:
                process.kill()


if __name__ == "__main__":
    main()
