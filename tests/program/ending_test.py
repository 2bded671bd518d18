"""How the program ends, and how it goes on when descriptors run out."""

import contextlib
import os
import signal
import unittest

from program import Program, read_answer

HALF = b"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\n01234"


def reflecting():
    """A server of one thread, so that it serves what came first first."""
    return Program("--reflect", "/", "--threads", "1")


class Signals(unittest.TestCase):
    def begin_request(self, server):
        """A connection with a request that is half sent, and half read once a later one on another
        connection is answered."""
        connection = server.connect()
        connection.sendall(HALF)
        server.exchange(b"GET / HTTP/1.1\r\n\r\n")
        return connection

    def test_end_an_idle_server(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number), Program("--text", "/=Hello") as server:
                with server.connect() as idle:
                    server.exchange(b"GET / HTTP/1.1\r\n\r\n", idle)
                    server.signal(number)
                    self.assertEqual(server.wait(), 0)
                    self.assertEqual(idle.recv(1), b"")

    def test_let_requests_in_flight_finish(self):
        with reflecting() as server, self.begin_request(server) as busy:
            server.signal(signal.SIGTERM)
            server.wait_until_refused()
            busy.sendall(b"56789")
            self.assertEqual(read_answer(busy)[2], b"0123456789")
            self.assertEqual(busy.recv(1), b"")
            self.assertEqual(server.wait(), 0)

    def test_do_not_wait_for_ever(self):
        with reflecting() as server, self.begin_request(server) as stuck:
            server.signal(signal.SIGINT)
            self.assertEqual(server.wait(), 0)
            self.assertEqual(stuck.recv(1), b"")

    def test_kill_when_they_come_twice(self):
        with reflecting() as server, self.begin_request(server):
            server.signal(signal.SIGINT)
            server.wait_until_refused()
            server.signal(signal.SIGTERM)
            self.assertEqual(server.wait(), -signal.SIGTERM)


class Descriptors(unittest.TestCase):
    @unittest.skipIf("undefined" in os.environ.get("CORVANE_SANITIZE", ""),
                     "the sanitizer opens pipes to look at objects and fails without descriptors")
    def test_that_run_out_only_pause_accepting(self):
        request = b"GET / HTTP/1.1\r\n\r\n"
        limit = 64
        with Program("--text", "/=Hello", "--threads", "1", "--quiet",
                     descriptors=limit) as server, contextlib.ExitStack() as stack:
            crowd = [stack.enter_context(server.connect()) for _ in range(limit)]
            late = stack.enter_context(server.connect())
            late.sendall(request)
            self.assertIn("Accepting connections pauses", server.error_lines(1)[0])
            # Who was accepted is served all the while; who waits comes in when others leave.
            self.assertEqual(server.exchange(request, crowd[0])[2], b"Hello")
            for connection in crowd[:limit // 2]:
                connection.close()
            self.assertEqual(read_answer(late)[2], b"Hello")
            self.assertEqual(server.end(), 0)


if __name__ == "__main__":
    unittest.main()
