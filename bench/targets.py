"""The servers that are measured, each by the command that starts it for a service: plain, tls,
upload, files, proxy, websocket or broadcast. How they run stands in processes.py, peers in
peers.py.
"""

import dataclasses
import pathlib
import subprocess

import loads
from loads import ANSWER
from processes import BenchError

CONTROL = "limit again"


class Target:
    """A server: its name, how it is started, the cores it may use if not the bench's one, and
    whether it has batch priority, as the load has."""

    def __init__(self, name, commands, cores=None, batch=False):
        self.name = name
        self.cores = cores
        self.batch = batch
        self._commands = {}
        for service, words in commands.items():
            self.add(service, words)

    def add(self, service, words):
        """Lets it serve one more."""
        self._commands[service] = [str(word) for word in words]

    def serves(self, service):
        return service in self._commands

    def command(self, _directory, service):
        """The command and the port, where the server does not choose and print one itself."""
        return self._commands[service], None


@dataclasses.dataclass(frozen=True)
class Material:
    """What all servers are given: a certificate over a P-256 key, and a directory of files."""
    certificate: str
    key: str
    files: str


def program(directory, name):
    for path in (directory / "bench" / name, directory / name):
        if path.exists():
            return path
    raise BenchError(f"{name} is not in {directory}")


def make_material(directory):
    """The certificate and the files, the same for all servers, below `directory`."""
    certificate, key = f"{directory}/certificate.pem", f"{directory}/key.pem"
    command = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
               "-nodes", "-days", "30", "-subj", "/CN=127.0.0.1",
               "-keyout", key, "-out", certificate]
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
    except FileNotFoundError:
        raise BenchError("openssl, which makes the certificate, is not installed") from None
    if done.returncode != 0:
        raise BenchError(f"openssl made no certificate: {done.stderr.strip()}")
    files = pathlib.Path(directory) / "files"
    for path, size in loads.FILES.values():
        make_file(files, path, size)
    return Material(certificate, key, str(files))


def make_file(directory, path, size):
    """A file as the load program expects it."""
    file = pathlib.Path(directory) / path.lstrip("/")
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text((ANSWER * (size // len(ANSWER) + 1))[:size])


def make_large_file(material):
    """The large file, of zeros that take no space on the disk."""
    path, size = loads.LARGE_FILE
    with open(pathlib.Path(material.files) / path.lstrip("/"), "wb") as file:
        file.truncate(size)


def _base(path, loops):
    return [path.resolve(), "--quiet", "--threads", loops, "--listen", "127.0.0.1:0"]


def corvane(name, path, material, loops=1, cores=None, more=()):
    """The corvane program at `path` with one route, for every service."""
    base = [*_base(path, loops), *more]
    plain = [*base, "--text", f"/={ANSWER}"]
    return Target(name, {"plain": plain,
                         "tls": [*plain, "--certificate", material.certificate,
                                 "--key", material.key],
                         "upload": [*plain, "--methods", "/=GET,POST"],
                         "files": [*base, material.files],
                         "websocket": [*base, "--echo", "/"]}, cores)


def proxy(name, path, upstream):
    """The corvane program at `path` before the server at the port `upstream`."""
    return Target(name, {"proxy": [*_base(path, 1), "--proxy", f"/=http://127.0.0.1:{upstream}/"]})


def limits(build_directory, material):
    """The limit and its second turn."""
    websocket = program(build_directory, "bench_limit_server_websocket")
    commands = {"plain": [program(build_directory, "bench_limit_server")],
                "tls": [program(build_directory, "bench_limit_server_tls"),
                        "--certificate", material.certificate, "--key", material.key],
                "upload": [program(build_directory, "bench_limit_server_upload")],
                "files": [program(build_directory, "bench_limit_server_files"),
                          "--directory", material.files],
                "websocket": [websocket],
                "broadcast": [websocket, "--mode", "broadcast"]}
    return [Target("limit", commands), Target(CONTROL, commands)]


def host(build_directory, kind, routes, *more):
    """The host with many routes, literal or by patterns."""
    return Target("host", {"plain": [program(build_directory, "bench_host"), kind, routes, *more]})


def upstream(build_directory):
    """The server behind a proxy. As little as the load is it to interrupt what is measured."""
    return Target("upstream", {"plain": [program(build_directory, "bench_upstream_server")]},
                  batch=True)


def corvane_paths(arguments):
    """The corvane programs by name; and what is to be said about one left out."""
    path = arguments.server or arguments.build_dir / "corvane"
    paths, notes = {}, []
    if path.exists():
        paths["corvane"] = path
    else:
        notes.append(f"corvane is left out: {path} does not exist")
    if arguments.against:
        if not arguments.against.exists():
            raise BenchError(f"{arguments.against} does not exist")
        paths["against"] = arguments.against
    return paths, notes


def choose_targets(arguments, material):
    """The servers, the limit first; and what is to be said about those left out."""
    limit, control = limits(arguments.build_dir, material)
    paths, notes = corvane_paths(arguments)
    programs = [corvane(name, path, material) for name, path in paths.items()]
    for target in programs:
        if target.name == "corvane":
            target.add("broadcast", [program(arguments.build_dir, "bench_broadcast_host")])
    return [limit, *programs, control], notes
