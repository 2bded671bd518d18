"""The command line: what is refused, with which exit code and in how many words."""

import os
import socket
import tempfile
import unittest

import program


class WrongOptions(unittest.TestCase):
    CASES = [
        # Arguments, and what the sentence must say.
        (["--bogus"], "--bogus"),
        (["--text"], "--text needs a value"),
        (["--text", "no equals sign"], "--text"),
        (["--text", "=text"], "--text"),
        (["--reflect", ""], "--reflect"),
        (["--listen", "nonsense"], "--listen"),
        (["--listen", "65536"], "65536"),
        (["--listen", "-1"], "-1"),
        (["--listen", ":8080"], "--listen"),
        (["--listen", "::1:8080"], "brackets"),
        (["--listen", "localhost:"], "--listen"),
        (["--threads", "0"], "--threads"),
        (["--threads", "two"], "--threads"),
        (["--keep-alive", "-1"], "--keep-alive"),
        (["--keep-alive", "nan"], "--keep-alive"),
        (["--keep-alive", "5s"], "--keep-alive"),
        (["--certificate", "chain.pem"], "together"),
        (["--key", "key.pem"], "together"),
        (["--text", "/a=b", "--methods", "/c=GET"], "no route is given for /c"),
        (["--text", "/a=b", "--methods", "/a="], "method names"),
        (["--text", "/a=b", "--methods", "/a=GET,"], "method names"),
        (["--text", "/a=b", "--methods", "/a=GET POST"], "method names"),
        (["--profile", "modern"], "modern"),
        (["--profile", "standard"], "not available yet"),
        (["--files", "/"], "--files"),
        (["--files", "/="], "a DIRECTORY is needed"),
        (["--files", "/d/=.", "--methods", "/e/=GET"], "no route is given for /e/"),
        (["--index", "a.html,"], "file names"),
        (["--index", "a/b.html"], "file names"),
        (["--proxy", "/=ftp://a"], "an http or https URL is needed"),
        (["--proxy", "/=http://"], "an http or https URL is needed"),
        (["--text", "/a=b", "--auth", "/a"], "PATH=USER:PASSWORD"),
        (["--text", "/a=b", "--auth", "/a=secret"], "PATH=USER:PASSWORD"),
        (["--text", "/a=b", "--auth", "u:secret"], "PATH=USER:PASSWORD"),
        (["--text", "/a=b", "--auth", "=u:secret"], "PATH=USER:PASSWORD"),
        (["--text", "/a=b", "--auth", "c=u:secret"], "no route is given for /c"),
        (["--text", "/a=b", "--auth", "u:secret=1:2"], "no route is given for its PATH"),
        (["--echo", ""], "--echo"),
        (["connect"], "URL is required"),
        (["connect", "wss://localhost/"], "TLS is not available"),
        (["connect", "HTTPS://localhost/"], "TLS is not available"),
        (["connect", "localhost"], "a URL like ws://"),
        (["connect", "ws:///path"], "a URL like ws://"),
        (["connect", "ftp://localhost/"], "a URL like ws://"),
        (["connect", "--protocol", "a,b", "ws://localhost/"], "--protocol a,b"),
        (["connect", "--header", "a b: c", "ws://localhost/"], "--header a b: c"),
        (["connect", "--header", "a", "ws://localhost/"], "--header a"),
        (["connect", "--profile", "standard", "ws://localhost/"], "not available yet"),
    ]

    def test_exit_with_2_and_one_sentence(self):
        for arguments, sentence in self.CASES:
            with self.subTest(arguments=arguments):
                code, output, errors = program.run(*arguments)
                self.assertEqual((code, output), (2, ""))
                self.assertIn(sentence, errors)
                self.assertEqual(errors.count("\n"), 1, errors)
                self.assertNotIn("secret", errors)


class ServersThatCannotStart(unittest.TestCase):
    def refused(self, *arguments):
        code, output, errors = program.run(*arguments)
        self.assertEqual((code, output), (1, ""), errors)
        self.assertEqual(errors.count("\n"), 1, errors)
        return errors

    def test_port_in_use(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            self.assertIn(str(port), self.refused("--listen", f"127.0.0.1:{port}"))

    def test_no_such_interface(self):
        self.assertIn("192.0.2.1", self.refused("--listen", "192.0.2.1:0"))
        self.refused("--listen", "no-such-interface:0")

    def test_directory_that_is_none(self):
        for arguments in (["/no/such"], [__file__], ["serve", "--files", "/=/no/such"]):
            with self.subTest(arguments=arguments):
                self.assertIn("is not a directory", self.refused(*arguments))

    def test_certificate_that_is_none(self):
        with tempfile.TemporaryDirectory() as directory:
            nothing = os.path.join(directory, "nothing.pem")
            self.assertIn("nothing.pem", self.refused("--certificate", nothing, "--key", nothing))
            with open(nothing, "w", encoding="ascii") as file:
                file.write("no certificate\n")
            self.refused("--certificate", nothing, "--key", nothing)


class Farewells(unittest.TestCase):
    def test_version(self):
        self.assertRegex(program.run("--version")[1], r"\Acorvane \d+\.\d+\.\d+\n\Z")

    def test_help_tells_what_there_is(self):
        code, output, errors = program.run("--help")
        self.assertEqual((code, errors), (0, ""))
        for option in ("--listen", "--text", "--reflect", "--inspect", "--methods", "--auth",
                       "--realm", "--threads", "--proxy", "--echo"):
            self.assertIn(option, output)
        self.assertEqual(program.run("serve", "--help")[1], output)
        self.assertIn("--protocol", program.run("connect", "--help")[1])


if __name__ == "__main__":
    unittest.main()
