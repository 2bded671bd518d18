#!/usr/bin/env python3
"""The chat in two windows of a headless Chromium, which is driven through a pipe. Exits with 77 when there
is no Chromium.

    chat_in_chromium.py CHAT
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile

from run_example import expect, run

SKIPPED = 77
MARKUP = "<img src=x onerror=\"document.title='owned'\">&amp;"


class Browser:
    """DevTools over the descriptors 3 and 4: one JSON text after the other, each ended by a NUL."""

    def __init__(self, executable, profile):
        commands, self._commands = os.pipe()
        self._answers, answers = os.pipe()

        def connect():
            # Both may stand where the other has to go.
            first, second = os.dup(commands), os.dup(answers)
            os.dup2(first, 3)
            os.dup2(second, 4)

        self._process = subprocess.Popen(
            [executable, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-dev-shm-usage", "--no-proxy-server", "--remote-debugging-pipe",
             f"--user-data-dir={profile}"],
            preexec_fn=connect, close_fds=False, stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(commands)
        os.close(answers)
        self._number = 0
        self._rest = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait()

    def call(self, method, session=None, **parameters):
        self._number += 1
        message = {"id": self._number, "method": method, "params": parameters}
        if session:
            message["sessionId"] = session
        os.write(self._commands, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._read()
            if answer.get("id") == self._number:
                return answer.get("result")

    def _read(self):
        while b"\0" not in self._rest:
            piece = os.read(self._answers, 65536)
            if not piece:
                raise SystemExit("Chromium has ended")
            self._rest += piece
        text, self._rest = self._rest.split(b"\0", 1)
        return json.loads(text)


class Window:
    def __init__(self, browser, url):
        target = browser.call("Target.createTarget", url=url, newWindow=True)["targetId"]
        self._session = browser.call("Target.attachToTarget", targetId=target,
                                     flatten=True)["sessionId"]
        self._browser = browser

    def evaluate(self, expression):
        """The value of an expression; none while the page is on its way."""
        result = self._browser.call("Runtime.evaluate", self._session, expression=expression,
                                    awaitPromise=True, returnByValue=True)
        return result and result["result"].get("value")

    def wait_for(self, expression, wanted):
        for _ in range(600):
            value = self.evaluate(expression)
            if value == wanted:
                return
            self.evaluate("new Promise(done => setTimeout(done, 50))")
        expect(value, wanted)

    def say(self, name, text):
        self.evaluate(f"document.querySelector('[name=name]').value = {json.dumps(name)}")
        self.evaluate("document.querySelector('[name=text]').focus()")
        self._browser.call("Input.insertText", self._session, text=text)
        self.evaluate("document.querySelector('button').click()")


STATE = "document.querySelector('#state')?.textContent"
LINES = "[...document.querySelectorAll('#messages li')].map(line => line.textContent)"


def check(executable, base):
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
        with Browser(executable, profile) as browser:
            ann, bob = Window(browser, base), Window(browser, base)
            for window in (ann, bob):
                window.wait_for(STATE, "Connected")
            ann.say("Ann", "Wörld")
            bob.wait_for(LINES, ["Ann: Wörld"])
            bob.say("", MARKUP)
            for window in (ann, bob):
                window.wait_for(LINES, ["Ann: Wörld", "Somebody: " + MARKUP])
                expect(window.evaluate("document.images.length + document.title"), "0Chat")
            # A page of another origin is not let in.
            other = Window(browser, "data:text/html,other")
            address = json.dumps(base.replace("http", "ws") + "chat")
            other.wait_for(f"new Promise(done => {{ const socket = new WebSocket({address});"
                           "socket.onopen = () => done('open');"
                           "socket.onclose = event => done(event.code); })", 1006)


def main():
    executable = shutil.which("chromium") or shutil.which("chromium-browser")
    if not executable:
        print("skipped: Chromium is not installed")
        sys.exit(SKIPPED)
    run(lambda base: check(executable, base), [sys.argv[1], "0"])


if __name__ == "__main__":
    main()
