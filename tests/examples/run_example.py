#!/usr/bin/env python3
"""Runs one example: starts it on a free port, sends requests with curl, checks the answers and ends it
with SIGTERM, after which it has to exit with 0.

    run_example.py files|hello|upload EXECUTABLE
"""

import os
import re
import signal
import subprocess
import sys
import tempfile


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


def files(base):
    expect(curl(base + "page.html"), (200, "page\n"))
    expect(curl(base + "page.html", "-r", "1-2"), (206, "ag"))
    for hidden in (".git/config", "page/../.git", ".profile"):
        expect(curl(base + hidden, "--path-as-is")[0], 404)


def hello(base):
    expect(curl(base + "there?x=1"), (200, "Hello from /there\n"))
    expect(curl(base, "-X", "DELETE")[0], 405)


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
    name, executable = sys.argv[1:]
    check = {"files": files, "hello": hello, "upload": upload}[name]
    with tempfile.TemporaryDirectory() as directory:
        os.makedirs(os.path.join(directory, ".git"))
        os.makedirs(os.path.join(directory, "page"))
        for file, text in (("page.html", "page\n"), (".git/config", "x"), (".profile", "x")):
            with open(os.path.join(directory, file), "w", encoding="ascii") as content:
                content.write(text)
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
