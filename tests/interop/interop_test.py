#!/usr/bin/env python3
"""The program against another implementation of WebSocket, as its server and as its client. Exits with 77
when the other one is not installed.

    interop_test.py websockets|ws
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "program"))
import program  # noqa: E402  pylint: disable=wrong-import-position

SKIPPED = 77
ENVIRONMENT = dict(os.environ, NODE_PATH="/usr/share/nodejs")


def peer_command(name):
    """How to start the peer; none when it is not there."""
    if name == "ws":
        candidates = [[shutil.which("node") or "node", "-e", "require('ws')"]]
        script = "ws_peer.js"
    else:
        candidates = [[python, "-c", "import websockets"]
                      for python in (sys.executable, "/usr/bin/python3")]
        script = "websockets_peer.py"
    for probe in candidates:
        try:
            subprocess.run(probe, env=ENVIRONMENT, capture_output=True, check=True, timeout=60)
            return [probe[0], os.path.join(HERE, script)]
        except (OSError, subprocess.CalledProcessError):
            continue
    return None


class PeerAsClient(unittest.TestCase):
    def run_against(self, *arguments):
        with program.Program("--echo", "/echo", *arguments) as server:
            url = f"{server.scheme.replace('http', 'ws')}://127.0.0.1:{server.port}/echo"
            done = subprocess.run([*PEER, "client", url], env=ENVIRONMENT, capture_output=True,
                                  text=True, timeout=120, check=False)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_plain(self):
        self.run_against()

    def test_over_tls(self):
        with tempfile.TemporaryDirectory() as directory:
            certificate, key = (os.path.join(directory, name) for name in ("c.pem", "k.pem"))
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                            "-subj", "/CN=localhost", "-keyout", key, "-out", certificate],
                           check=True, capture_output=True)
            self.run_against("--certificate", certificate, "--key", key)


class PeerAsServer(unittest.TestCase):
    def setUp(self):
        self.peer = subprocess.Popen([*PEER, "server"], env=ENVIRONMENT, stdout=subprocess.PIPE,
                                     text=True)
        self.addCleanup(self.peer.wait)
        self.addCleanup(self.peer.kill)
        self.addCleanup(self.peer.stdout.close)
        self.url = f"ws://127.0.0.1:{int(self.peer.stdout.readline())}/"

    def talk(self, *turns, arguments=()):
        """Sends lines and reads an answer to each; then the end of input, exit code and errors."""
        with program.Client(self.url, *arguments) as client:
            for line, answer in turns:
                client.send(line)
                self.assertEqual(client.read_line(), answer)
            return client.end()

    def test_echo(self):
        texts = ["", "ä", "x" * 65_535, "y" * 1_000_000]
        self.assertEqual(self.talk(*zip(texts, texts)), (0, "closed: 1000\n"))

    def test_pings_bytes_and_fields(self):
        self.assertEqual(
            self.talk(("ping", "pong"), ("bytes", "binary: 00ff7a"), ("headers", "b superchat"),
                      arguments=["--protocol", "chat", "--protocol", "superchat",
                                 "--header", "X-Test: b"]),
            (0, "closed: 1000\n"))

    def test_ends(self):
        self.assertEqual(self.talk(("close", "")), (1, "closed: 4321 enough\n"))
        self.assertEqual(self.talk(("pieces", "")), (1, "closed: 1002 Unexpected opcode: 0\n"))


if __name__ == "__main__":
    PEER = peer_command(sys.argv.pop(1))
    if not PEER:
        print("skipped: the other implementation is not installed")
        sys.exit(SKIPPED)
    unittest.main()
