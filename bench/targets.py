"""The servers that are measured, each by the command that starts it for a service: plain, tls or
upload. How they run stands in processes.py.
"""

import pathlib
import shutil
import socket
import subprocess

from loads import ANSWER
from processes import BenchError

CONTROL = "limit again"


class Target:
    """A server: its name, how it is started, and the cores it may use if not the bench's one."""

    def __init__(self, name, commands, cores=None):
        self.name = name
        self.cores = cores
        self._commands = {service: [str(word) for word in words]
                          for service, words in commands.items()}

    def serves(self, service):
        return service in self._commands

    def command(self, _directory, service):
        """The command and the port, where the server does not choose and print one itself."""
        return self._commands[service], None


class Nginx(Target):
    """nginx with one process, its logs off, and the same answer out of its configuration."""

    CONFIGURATION = """
daemon off; master_process off; worker_processes 1; error_log stderr crit; pid {directory}/pid;
worker_rlimit_nofile 20000;
events {{ worker_connections 12000; }}
http {{
  access_log off; server_tokens off; keepalive_requests 1000000000; keepalive_timeout 60s;
  client_body_temp_path {directory}/b; proxy_temp_path {directory}/p;
  fastcgi_temp_path {directory}/f; uwsgi_temp_path {directory}/u; scgi_temp_path {directory}/s;
  server {{
    listen 127.0.0.1:{port} backlog=4096{tls};
    location / {{ default_type "text/plain; charset=utf-8"; return 200 "{answer}"; }}
  }}
}}
"""
    TLS = (" ssl; ssl_protocols TLSv1.3; ssl_session_cache none; "
           "ssl_certificate {}; ssl_certificate_key {}")

    def __init__(self, program, identity):
        # It answers by `return`, which drops a body, so it does not take part in uploads.
        super().__init__("nginx", {"plain": [program], "tls": [program]})
        self._identity = identity

    def command(self, directory, service):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        tls = self.TLS.format(*self._identity) if service == "tls" else ""
        file = pathlib.Path(directory) / "nginx.conf"
        file.write_text(self.CONFIGURATION.format(directory=directory, port=port, answer=ANSWER,
                                                  tls=tls))
        command, _ = super().command(directory, service)
        return command + ["-p", str(directory), "-e", "stderr", "-c", str(file)], port


def program(directory, name):
    for path in (directory / "bench" / name, directory / name):
        if path.exists():
            return path
    raise BenchError(f"{name} is not in {directory}")


def make_identity(directory):
    """A certificate over a P-256 key, the same for all servers: (certificate, key)."""
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
    return certificate, key


def corvane(name, path, identity, loops=1, cores=None, more=()):
    """The corvane program at `path` with one route, for every service."""
    plain = [path.resolve(), "--quiet", "--threads", loops, "--listen", "127.0.0.1:0",
             "--text", f"/={ANSWER}", *more]
    certificate, key = identity
    return Target(name, {"plain": plain,
                         "tls": [*plain, "--certificate", certificate, "--key", key],
                         "upload": [*plain, "--methods", "/=GET,POST"]}, cores)


def limits(build_directory, identity):
    """The limit and its second turn."""
    certificate, key = identity
    commands = {"plain": [program(build_directory, "bench_limit_server")],
                "tls": [program(build_directory, "bench_limit_server_tls"),
                        "--certificate", certificate, "--key", key],
                "upload": [program(build_directory, "bench_limit_server_upload")]}
    return [Target("limit", commands), Target(CONTROL, commands)]


def host(build_directory, kind, routes):
    """The host with many routes, literal or by patterns."""
    return Target("host", {"plain": [program(build_directory, "bench_host"), kind, routes]})


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


def choose_targets(arguments, identity):
    """The servers, the limit first; and what is to be said about those left out."""
    limit, control = limits(arguments.build_dir, identity)
    paths, notes = corvane_paths(arguments)
    programs = [corvane(name, path, identity) for name, path in paths.items()]
    targets = [limit, *programs, control]
    if arguments.peers:
        nginx = shutil.which("nginx") or shutil.which("nginx", path="/usr/sbin:/usr/local/sbin")
        if nginx:
            targets.append(Nginx(nginx, identity))
        else:
            notes.append("nginx is left out: it is not installed")
    return targets, notes
