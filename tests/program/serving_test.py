"""What the program serves: its routes, who may use them, its addresses, HTTPS, access lines."""

import base64
import hashlib
import json
import os
import re
import subprocess
import tempfile
import unittest
import uuid

from program import Program

ACCESS_LINE = re.compile(
    r'(\S+) - (\S+) \[\d\d/[A-Z][a-z]{2}/\d{4}:\d\d:\d\d:\d\d [+-]\d{4}\] '
    r'"((?:[^"\\]|\\.)*)" (\S+) (\S+) "((?:[^"\\]|\\.)*)" "((?:[^"\\]|\\.)*)"\n')


class Routes(unittest.TestCase):
    def test_are_tried_in_the_order_of_the_command_line(self):
        with Program("--text", "/a/b=inner", "--inspect", "/a", "--text", "/a/c=never",
                     "--reflect", "/b", "--text", "/=Ünder = /") as server:
            self.assertEqual(server.get("/a/b")[2], b"inner")
            self.assertEqual(json.loads(server.get("/a/c")[2])["path"], "/a/c")
            self.assertEqual(server.get("/b", "PUT", body=b"body")[2], b"body")
            self.assertEqual(server.get("/elsewhere")[2], "Ünder = /".encode())

    def test_methods(self):
        with Program("--text", "/text=x", "--reflect", "/reflect", "--inspect", "/inspect",
                     "--text", "/other=x", "--methods", "other=post,PURGE") as server:
            def allowed(path):
                return server.get(path, "OPTIONS")[1].get("allow")
            self.assertEqual(allowed("/text"), "HEAD, GET")
            self.assertEqual(allowed("/reflect"), "HEAD, GET, POST, PUT, DELETE, PATCH")
            self.assertEqual(allowed("/other"), "POST, PURGE")
            self.assertEqual(server.get("/inspect", "OPTIONS")[0], 200)
            self.assertEqual(server.get("/other")[0], 405)
            status, fields, body = server.get("/text", "HEAD")
            self.assertEqual((status, fields["content-length"], body), (200, "1", b""))

    def test_reflection_of_every_size(self):
        with Program("--reflect", "/") as server:
            for size in (0, 1, 5_242_880, 5_242_881):
                with self.subTest(size=size):
                    body = os.urandom(size)
                    status, fields, reflected = server.get("/", "POST", body=body)
                    self.assertEqual(status, 200)
                    self.assertEqual(fields["content-type"], "application/octet-stream")
                    self.assertEqual(hashlib.sha256(reflected).digest(),
                                     hashlib.sha256(body).digest())


class Proxying(unittest.TestCase):
    def test_reaches_another_server(self):
        with Program("--inspect", "/base", "--text", "/=Nothing") as upstream, \
                Program("--proxy", f"api/=http://127.0.0.1:{upstream.port}/base",
                        "--proxy", "/gone=http://127.0.0.1:1") as server:
            status, fields, body = server.get("/api/a%20b?x=%26", "PATCH", body=b"abc")
            self.assertEqual((status, fields["content-type"]), (200, "application/json"))
            seen = json.loads(body)
            self.assertEqual((seen["method"], seen["url"]), ("PATCH", "/base/a%20b?x=%26"))
            self.assertEqual(seen["bodySHA256"], hashlib.sha256(b"abc").hexdigest())
            large = os.urandom(6_000_000)
            seen = json.loads(server.get("/api", "PUT", body=large)[2])
            self.assertEqual((seen["body"], seen["contentLength"]), ("file", len(large)))
            self.assertEqual(seen["bodySHA256"], hashlib.sha256(large).hexdigest())
            self.assertEqual(server.get("/gone")[0], 500)
            self.assertEqual(server.get("/elsewhere")[0], 404)


class Authentication(unittest.TestCase):
    def ask(self, server, path, credentials=None, method="GET"):
        """The status and the challenge."""
        fields = ""
        if credentials is not None:
            encoded = base64.b64encode(credentials.encode()).decode()
            fields = f"Authorization: Basic {encoded}\r\n"
        status, fields, _ = server.get(path, method, fields)
        return status, fields.get("www-authenticate")

    def test_of_the_users_of_each_route(self):
        with Program("--auth", "a=user:pa:ss", "--realm", "Staff", "--auth", "/a=\u00e4:",
                     "--text", "/a=Hello", "--text", "/b=open", "--auth", "/=u:p",
                     "--methods", "/a=GET", ".") as server:
            challenge = 'Basic realm="Staff"'
            for credentials, status in (("user:pa:ss", 200), ("\u00e4:", 200), ("user:", 401),
                                        ("user:pa:s", 401), ("user:pa:sss", 401), ("u:p", 401),
                                        ("\u00e4:pa:ss", 401), ("", 401), (None, 401)):
                self.assertEqual(self.ask(server, "/a", credentials),
                                 (status, None if status == 200 else challenge), credentials)
            self.assertEqual(self.ask(server, "/a", method="HEAD"), (401, challenge))
            self.assertEqual(self.ask(server, "/a", "user:pa:ss", "HEAD"), (405, None))
            self.assertEqual(self.ask(server, "/b"), (200, None))
            self.assertEqual(self.ask(server, "/nowhere"), (401, challenge))
            self.assertEqual(self.ask(server, "/nowhere", "u:p"), (404, None))

    def test_leaves_no_password_in_the_log(self):
        with Program("--text", "/=Hello", "--auth", "/=user:secret", "--debug") as server:
            self.assertEqual(self.ask(server, "/"), (401, "Basic"))
            self.assertEqual(self.ask(server, "/", "user:secret"), (200, None))
            server.exchange(b"GET / HTTP/9\r\nAuthorization: Basic dXNlcjpzZWNyZXQ=\r\n\r\n")
            self.assertEqual(server.end(), 0)
            log = "".join(server.all_error_lines())
            self.assertIn("401", log)
            for word in ("secret", "dXNlcjpzZWNyZXQ"):
                self.assertNotIn(word, log)


class Files(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = directory.name
        self.file("index.html", b"<p>home</p>")
        self.file("docs/start.htm", b"<p>docs</p>")
        self.file("docs/photo.JPG", bytes(range(256)) * 4)
        self.file("docs/a b\u00e4.txt", b"text")

    def file(self, name, content):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)

    def test_directory(self):
        with Program(self.root) as server:
            status, fields, body = server.get("/")
            self.assertEqual((status, body), (200, b"<p>home</p>"))
            self.assertEqual(fields["content-type"], "text/html")
            self.assertEqual(server.get("/docs")[0], 403)
            self.assertEqual(server.get("/nothing")[0], 404)
            self.assertEqual(server.get("/docs/a%20b%C3%A4.txt")[2], b"text")
            self.assertEqual(server.get("/..%2f..%2fetc/passwd")[0], 404)

    def test_current_directory_is_the_default(self):
        with Program(cwd=self.root) as server:
            self.assertEqual(server.get("/")[2], b"<p>home</p>")

    def test_under_a_path_with_index_names_and_a_directory_behind_it(self):
        with Program("--files", "/pages/=" + os.path.join(self.root, "docs"), "--index",
                     "none.html,start.htm", "--methods", "/pages/=GET", self.root) as server:
            self.assertEqual(server.get("/pages", "HEAD")[0], 405)
            for path in ("/pages", "/pages/", "/docs"):
                self.assertEqual(server.get(path)[2], b"<p>docs</p>", path)
            self.assertEqual(server.get("/")[0], 403)

    def test_parts(self):
        with Program(self.root) as server:
            status, fields, body = server.get("/docs/photo.JPG", fields="Range: bytes=256-511\r\n")
            self.assertEqual((status, body), (206, bytes(range(256))))
            self.assertEqual(fields["content-type"], "image/jpeg")
            self.assertEqual(fields["content-range"], "bytes 256-511/1024")


class Inspection(unittest.TestCase):
    MEMBERS = ["method", "url", "path", "match", "headers", "GETParameters", "POSTParameters",
               "contentType", "contentLength", "body", "bodySHA256", "secure", "connectionSecure",
               "identifier"]

    def inspect(self, server, *arguments, **keywords):
        status, fields, body = server.get(*arguments, **keywords)
        self.assertEqual((status, fields["content-type"]), (200, "application/json"))
        return json.loads(body.decode("utf-8"))

    def test_of_a_body_in_memory(self):
        with Program("--inspect", "/a") as server:
            seen = self.inspect(server, "/a/b%20c?x=1&x=2&y", "POST",
                                "Content-Type: text/plain\r\nX-Quote: \"\\\t\r\n", b"abc")
            self.assertEqual(list(seen), self.MEMBERS)
            uuid.UUID(seen.pop("identifier"))
            self.assertEqual(seen, {
                "method": "POST", "url": "/a/b%20c?x=1&x=2&y", "path": "/a/b c", "match": ["/a"],
                "headers": {"Content-Length": "3", "Content-Type": "text/plain", "Host": "test",
                            "X-Quote": "\"\\"},
                "GETParameters": {"x": "2"}, "POSTParameters": None, "contentType": "text/plain",
                "contentLength": 3, "body": "memory",
                "bodySHA256": hashlib.sha256(b"abc").hexdigest(), "secure": False,
                "connectionSecure": False})

    def test_of_no_body(self):
        with Program("--inspect", "/") as server:
            seen = self.inspect(server, "/")
            self.assertEqual((seen["body"], seen["contentLength"], seen["contentType"],
                              seen["POSTParameters"]), ("none", 0, None, {}))

    def test_of_a_body_in_a_file(self):
        with Program("--inspect", "/") as server:
            body = b"x" * 5_242_881
            seen = self.inspect(server, "/", "PUT", body=body)
            self.assertEqual((seen["body"], seen["contentLength"], seen["bodySHA256"]),
                             ("file", len(body), hashlib.sha256(body).hexdigest()))

    def test_of_bytes_that_are_no_text(self):
        with Program("--inspect", "/") as server:
            request = (b"GET /?a=%ff%00&b=\xc3\xa9 HTTP/1.1\r\n"
                       b"X-Latin: caf\xe9 \xf0\x9f\x98\x80\r\nX-Cut: \xe2\x82\r\n\r\n")
            seen = json.loads(server.exchange(request)[2].decode("utf-8"))
            self.assertEqual(seen["headers"]["X-Latin"], "caf\ufffd \U0001f600")
            self.assertEqual(seen["headers"]["X-Cut"], "\ufffd")
            self.assertEqual(seen["GETParameters"]["b"], "é")


class Addresses(unittest.TestCase):
    def test_are_announced_as_bound(self):
        for listen, host in (("127.0.0.1:0", "127.0.0.1"), ("[::1]:0", "[::1]"),
                             ("0.0.0.0:0", "0.0.0.0"), ("[::]:0", "[::]"),
                             ("localhost:0", "127.0.0.1"), ("0", "127.0.0.1")):
            with self.subTest(listen=listen), Program("--text", "/=Hello", listen=listen) as server:
                self.assertEqual(server.announcement,
                                 f"Listening on http://{host}:{server.port}/\n")
                self.assertEqual(server.get("/")[2], b"Hello")

    def test_every_interface_speaks_both_families(self):
        with Program("--text", "/=Hello", listen="[::]:0") as server:
            for host in ("127.0.0.1", "::1"):
                server.host = host
                self.assertEqual(server.get("/")[2], b"Hello")

    def test_localhost_is_both_families(self):
        with Program("--text", "/=Hello", listen="localhost:0") as server:
            server.host = "::1"
            self.assertEqual(server.get("/")[2], b"Hello")


class HTTPS(unittest.TestCase):
    def test_with_a_certificate(self):
        with tempfile.TemporaryDirectory() as directory:
            certificate = os.path.join(directory, "certificate.pem")
            key = os.path.join(directory, "key.pem")
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                            "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=localhost",
                            "-out", certificate, "-keyout", key], check=True, capture_output=True)
            with Program("--certificate", certificate, "--key", key, "--inspect", "/") as server:
                self.assertTrue(server.announcement.startswith("Listening on https://127.0.0.1:"))
                seen = json.loads(server.get("/")[2])
                self.assertEqual((seen["secure"], seen["connectionSecure"]), (False, True))
                self.assertEqual(server.end(), 0)


class AccessLines(unittest.TestCase):
    def test_are_in_the_combined_format(self):
        with Program("--text", "/text=Hello") as server:
            with server.connect() as connection:
                server.exchange(b"GET /text?a=\"\\ HTTP/1.1\r\nReferer: http://a/\"b\r\n"
                                b"User-Agent: test/1 \xff\tx\r\n\r\n", connection)
                server.exchange(b"HEAD /nowhere HTTP/1.0\r\nConnection: keep-alive\r\n\r\n",
                                connection)
                server.exchange(b"nonsense\r\n", connection)
            parsed = [ACCESS_LINE.fullmatch(line) for line in server.error_lines(4)
                      if " - - [" in line]
            self.assertEqual([line and line.groups() for line in parsed], [
                ("127.0.0.1", "-", r'GET /text?a=\"\\ HTTP/1.1', "200", "5", r'http://a/\"b',
                 r"test/1 \xff\x09x"),
                ("127.0.0.1", "-", "HEAD /nowhere HTTP/1.0", "404", "-", "-", "-"),
                ("127.0.0.1", "-", "-", "400", "-", "-", "-")])

    def test_are_whole_although_many_threads_write_them(self):
        with Program("--text", "/=Hello", "--threads", "4") as server:
            connections = [server.connect() for _ in range(8)]
            # Longer than what a pipe takes without a break.
            request = b"GET /" + b"a" * 6000 + b" HTTP/1.1\r\n\r\n"
            for _ in range(10):
                for connection in connections:
                    connection.sendall(request)
            for line in server.error_lines(80):
                self.assertRegex(line, ACCESS_LINE)
            for connection in connections:
                connection.close()

    def test_quiet_has_none(self):
        with Program("--text", "/=Hello", "--quiet") as server:
            server.get("/")
            self.assertEqual(server.end(), 0)
            self.assertEqual(server.all_error_lines(), [])

    def test_debug_tells_of_connections(self):
        with Program("--text", "/=Hello", "--quiet", "--debug") as server:
            server.get("/")
            self.assertEqual(server.end(), 0)
            lines = "".join(server.all_error_lines())
            self.assertIn("DEBUG LOGGING IS ON", lines)
            self.assertRegex(lines, r'Accepting connection: "[0-9A-F-]{36}"')

    def test_a_reader_that_goes_away_does_not_end_the_server(self):
        reading, writing = os.pipe()
        with Program("--text", "/=Hello", errors=writing) as server:
            os.close(writing)
            os.close(reading)
            for _ in range(3):
                self.assertEqual(server.get("/")[2], b"Hello")
            self.assertEqual(server.end(), 0)


if __name__ == "__main__":
    unittest.main()
