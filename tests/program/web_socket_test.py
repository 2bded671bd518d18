"""The program's WebSockets: --echo as server, connect as client, and how both end."""

import signal
import socket
import subprocess
import threading
import unittest

from program import Client, Program, run


class Connect(unittest.TestCase):
    def setUp(self):
        self.server = Program("--echo", "/echo")
        self.addCleanup(self.server.__exit__, None)
        self.url = f"ws://127.0.0.1:{self.server.port}/echo"

    def test_sends_lines_and_prints_what_comes(self):
        with Client(self.url.replace("ws:", "http:")) as client:
            for line in ("hello", "", "wörld\r", "x" * 300_000):
                client.send(line)
                self.assertEqual(client.read_line(), line)
            self.assertEqual(client.end(), (0, "closed: 1000\n"))
        self.assertRegex(self.server.error_lines(1)[0], r'"GET /echo HTTP/1.1" 101 - ')

    def test_sends_what_it_was_given_before_it_closes(self):
        count = 20_000
        with Client(self.url) as client:
            feeder = threading.Thread(
                target=lambda: [client.send(f"{number} " + "x" * 1000) for number in range(count)])
            feeder.start()
            for number in range(count):
                self.assertTrue(client.read_line().startswith(f"{number} "))
            feeder.join()
            self.assertEqual(client.end(), (0, "closed: 1000\n"))

    def test_skips_lines_that_are_no_text(self):
        with Client(self.url) as client:
            client.process.stdin.write(b"\xff\n")
            client.send("text")
            self.assertEqual(client.read_line(), "text")
            code, errors = client.end()
        self.assertEqual((code, errors.splitlines()[1]), (1, "closed: 1000"))
        self.assertIn("UTF-8", errors)

    def test_closes_in_good_order_on_a_signal(self):
        with Client(self.url) as client:
            client.send("x")
            self.assertEqual(client.read_line(), "x")
            client.process.send_signal(signal.SIGINT)
            self.assertEqual(client.wait(), (0, "closed: 1000\n"))

    def test_stays_until_the_other_end_has_let_go(self):
        for second, code in ((None, 0), (signal.SIGTERM, -signal.SIGTERM)):
            with socket.create_server(("127.0.0.1", 0)) as listener, \
                    Client(f"ws://127.0.0.1:{listener.getsockname()[1]}/") as client:
                connection, _ = listener.accept()
                with connection:
                    while b"\r\n\r\n" not in connection.recv(65536):
                        pass
                    connection.sendall(b"HTTP/1.1 101 OK\r\n\r\n\x81\x01x")
                    self.assertEqual(client.read_line(), "x")
                    client.process.send_signal(signal.SIGINT)
                    while connection.recv(65536):
                        pass
                    # What it had sent would be lost if the system reset the connection for it.
                    with self.assertRaises(subprocess.TimeoutExpired):
                        client.process.wait(0.5)
                    if second:
                        client.process.send_signal(second)
                        client.process.wait(30)
                self.assertEqual(client.wait(), (code, "closed: 1000\n"))

    def test_is_told_when_the_server_goes_away(self):
        with Client(self.url) as client:
            client.send("x")
            self.assertEqual(client.read_line(), "x")
            self.assertEqual(self.server.end(), 0)
            self.assertEqual(client.wait(), (1, "closed: 1001\n"))


class Failures(unittest.TestCase):
    def assert_fails(self, url, sentence, *arguments):
        code, output, errors = run("connect", *arguments, url)
        self.assertEqual((code, output), (1, ""))
        self.assertEqual(errors.count("\n"), 1, errors)
        self.assertIn(sentence, errors)

    def answering(self, answer):
        """A server that answers one connection with these bytes, and its URL."""
        listener = socket.create_server(("127.0.0.1", 0))

        def serve():
            connection, _ = listener.accept()
            with listener, connection:
                while b"\r\n\r\n" not in connection.recv(65536):
                    pass
                connection.sendall(answer)

        server = threading.Thread(target=serve)
        server.start()
        self.addCleanup(server.join)
        return f"ws://127.0.0.1:{listener.getsockname()[1]}/"

    def test_to_open(self):
        with socket.create_server(("127.0.0.1", 0)) as nobody:
            url = f"ws://127.0.0.1:{nobody.getsockname()[1]}/"
        self.assert_fails(url, "refused")
        self.assert_fails("ws://no-such-host.invalid/", "no-such-host.invalid")
        self.assert_fails(self.answering(b"HTTP/1.1 404 Not Found\r\n\r\n"), "does not open")
        self.assert_fails(self.answering(b""), "closed")

    def test_of_the_other_end_stay_in_one_line(self):
        for frame, end in ((b"\x88\x0b\x10\xe1a\r\nb\x1b[1mc", "4321 a  b [1mc"), (b"", "1006")):
            with Client(self.answering(b"HTTP/1.1 101 OK\r\n\r\n" + frame)) as client:
                self.assertEqual(client.wait(), (1, f"closed: {end}\n"))


if __name__ == "__main__":
    unittest.main()
