"""Servers of the distribution that --peers measures beside. Each has one thread and no logs."""

import os
import pathlib
import pwd
import shutil
import socket

from loads import ANSWER
from targets import Target


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx(Target):
    """nginx with one process. Its answer is out of its configuration, or a file that it opens for
    each request or, with `keeps_files`, finds in its cache of open files."""

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
    location / {{ {location} }}
  }}
}}
"""
    TLS = (" ssl; ssl_protocols TLSv1.3; ssl_session_cache none; "
           "ssl_certificate {0.certificate}; ssl_certificate_key {0.key}")
    TEXT = f'default_type "text/plain; charset=utf-8"; return 200 "{ANSWER}";'
    FILES = ("root {0.files}; types {{ text/javascript js; }} sendfile on; tcp_nopush on; "
             "open_file_cache {1};")
    # A request to the upstream says `Connection: close`, as is nginx's own habit.
    PROXY = ("client_max_body_size 0; proxy_http_version 1.1; proxy_set_header Connection close; "
             "proxy_pass http://127.0.0.1:{};")

    def __init__(self, name, program, material, services, keeps_files=False, upstream=None):
        super().__init__(name, {service: [program] for service in services})
        self._material = material
        self._cache = "max=1000 inactive=60s" if keeps_files else "off"
        self._upstream = upstream

    def command(self, directory, service):
        port = free_port()
        tls = self.TLS.format(self._material) if service == "tls" else ""
        location = {"files": self.FILES.format(self._material, self._cache),
                    "proxy": self.PROXY.format(self._upstream)}.get(service, self.TEXT)
        file = pathlib.Path(directory) / "nginx.conf"
        file.write_text(self.CONFIGURATION.format(directory=directory, port=port, tls=tls,
                                                  location=location))
        command, _ = super().command(directory, service)
        return command + ["-p", str(directory), "-e", "stderr", "-c", str(file)], port


class H2O(Target):
    """h2o with one thread, for files only. Started by root it would else give up its rights, and
    with them the bench's directory."""

    CONFIGURATION = """
num-threads: 1
max-connections: 12000
user: {user}
http1-request-timeout: 60
listen: {{ host: 127.0.0.1, port: {port} }}
hosts:
  default:
    paths:
      /: {{ file.dir: "{files}" }}
"""

    def __init__(self, program, material):
        super().__init__("h2o", {"files": [program]})
        self._files = material.files

    def command(self, directory, service):
        port = free_port()
        file = pathlib.Path(directory) / "h2o.conf"
        file.write_text(self.CONFIGURATION.format(port=port, files=self._files,
                                                  user=pwd.getpwuid(os.getuid()).pw_name))
        command, _ = super().command(directory, service)
        return command + ["-m", "worker", "-c", str(file)], port


def proxy(name, material, upstream):
    """nginx before the server at the port `upstream`, or nothing where it is not installed."""
    program = find("nginx")
    return Nginx(name, program, material, ("proxy",), upstream=upstream) if program else None


def find(name):
    return shutil.which(name) or shutil.which(name, path="/usr/sbin:/usr/local/sbin")


def choose_peers(material):
    """The peers that are installed, and what is to be said about the others."""
    peers, notes = [], []
    if nginx := find("nginx"):
        # It answers by `return`, which drops a body, so it does not take part in uploads.
        peers.append(Nginx("nginx", nginx, material, ("plain", "tls", "files")))
        peers.append(Nginx("nginx cache", nginx, material, ("files",), keeps_files=True))
    else:
        notes.append("nginx is left out: it is not installed")
    if h2o := find("h2o"):
        peers.append(H2O(h2o, material))
    else:
        notes.append("h2o is left out: it is not installed")
    return peers, notes
