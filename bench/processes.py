"""The processes of a benchmark: servers and loads, pinned to their cores, and what the kernel says
of them. Everything started here is stopped here, whatever happens. What is measured is in
measures.py.
"""

import contextlib
import ctypes
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import tempfile
import time

from loads import ANSWER

START_SECONDS = 30
LOAD_SECONDS = 300


class BenchError(Exception):
    """A measurement that cannot be made, with the reason."""


def _prepare_child(cores, batch):
    """Runs in the child: its cores, batch priority for the load, death with the parent."""

    def prepare():
        ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
        os.sched_setaffinity(0, cores)
        if batch:
            os.sched_setscheduler(0, os.SCHED_BATCH, os.sched_param(0))

    return prepare


class Child:
    """A process in a session of its own, with its output read line by line."""

    _running = set()

    def __init__(self, command, cores, batch=False, environment=None):
        self.command = command
        self._text = b""
        self._errors = tempfile.TemporaryFile()  # a pipe that nobody reads would block the child
        self._process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True,
            stderr=self._errors, preexec_fn=_prepare_child(cores, batch),
            env={**os.environ, **(environment or {})})
        self.pid = self._process.pid
        Child._running.add(self)

    def line(self, seconds):
        """The next line of standard output."""
        deadline = time.monotonic() + seconds
        output = self._process.stdout.fileno()
        while b"\n" not in self._text:
            ready, _, _ = select.select([output], [], [], max(0, deadline - time.monotonic()))
            piece = os.read(output, 4096) if ready else b""
            if not piece:
                raise BenchError(f"{self.command[0]}: " + (self._complaint() if ready else
                                                           f"silent for {seconds} s"))
            self._text += piece
        line, self._text = self._text.split(b"\n", 1)
        return line.decode()

    def has_output(self, seconds):
        """Whether there is something to read, or the end, within so many seconds."""
        return bool(self._text or select.select([self._process.stdout], [], [], seconds)[0])

    def tell(self, line):
        self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()

    def wait(self, seconds):
        try:
            return self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise BenchError(f"{self.command[0]}: still running after {seconds} s") from None

    def stop(self):
        """Ends the whole session of the child, by force if it does not go."""
        for number in (signal.SIGTERM, signal.SIGKILL):
            if self._process.poll() is not None:
                break
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self.pid, number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                self._process.wait(10)
        with contextlib.suppress(ProcessLookupError, PermissionError):
            os.killpg(self.pid, signal.SIGKILL)
        for stream in (self._process.stdin, self._process.stdout, self._errors):
            with contextlib.suppress(OSError):
                stream.close()
        Child._running.discard(self)

    def _complaint(self):
        with contextlib.suppress(subprocess.TimeoutExpired):
            self._process.wait(1)
        if self._process.poll() is None:
            return "closed its output"
        self._errors.seek(0)
        text = self._errors.read().decode(errors="replace").strip()
        return text[-500:] or f"ended with {self._process.returncode}"

    @classmethod
    def stop_all(cls):
        for child in list(cls._running):
            child.stop()


class Bench:
    """What all measurements share: the core, the load program and a directory for files."""

    def __init__(self, core, client, directory):
        self.core = core
        self.client = str(client)
        self.directory = directory

    @contextlib.contextmanager
    def server(self, target, service="plain", wrapper=()):
        """A running server as (child, port), started behind the words of `wrapper`. Its temporary
        files are in a directory of its own, which goes away with it."""
        with tempfile.TemporaryDirectory(dir=self.directory) as files:
            command, port = target.command(files, service)
            child = Child(list(wrapper) + command, target.cores or {self.core}, target.batch,
                          environment={"TMPDIR": files})
            try:
                if port is None:
                    port = _announced_port(target, child)
                else:
                    _wait_until_open(port)
                yield child, port
            finally:
                child.stop()

    @contextlib.contextmanager
    def load(self, port, *words):
        command = [self.client, "--port", port, "--expect", ANSWER, *words]
        child = Child([str(word) for word in command], {self.core}, batch=True)
        try:
            yield child
        finally:
            child.stop()

    def run_load(self, port, *words):
        """A whole load, with no look at the server in between."""
        with self.load(port, *words) as child:
            expect(child, "ready")
            expect(child, "done")


def _announced_port(target, child):
    line = child.line(START_SECONDS)
    match = re.search(r"https?://127\.0\.0\.1:(\d+)/", line)
    if not match:
        raise BenchError(f"{target.name}: printed {line!r} instead of its address")
    return int(match.group(1))


def expect(child, word):
    """Waits for the load's word, and for no errors when it is done."""
    line = child.line(LOAD_SECONDS)
    if not line.startswith(word):
        raise BenchError(f"the load said {line!r}")
    if word == "done" and " errors=0 " not in line:
        raise BenchError(f"answers were wrong or missing: {line}")


def _wait_until_open(port):
    deadline = time.monotonic() + START_SECONDS
    while True:
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
            return
        except OSError:
            if time.monotonic() > deadline:
                raise BenchError(f"nothing listens on port {port}") from None
            time.sleep(0.02)


def cpu_nanoseconds(pid):
    """Time on a processor of all threads, those that have ended included: the scheduler's sum."""
    return time.clock_gettime_ns(~pid << 3 | 2)  # the kernel's clock of another process


def settle(pid, seconds=0.2):
    """Waits until every thread of the process sleeps, so that its account is complete. Under a
    tracer the end of thousands of connections takes seconds."""
    before, end = None, time.monotonic() + seconds
    while time.monotonic() < end:
        now = cpu_nanoseconds(pid)
        if now == before and _all_sleep(pid):
            return
        before = now
        time.sleep(0.001)


def _all_sleep(pid):
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        with contextlib.suppress(FileNotFoundError):
            if (task / "stat").read_text().rpartition(")")[2].split()[0] != "S":
                return False
    return True


def thread_count(pid):
    return len(list(pathlib.Path(f"/proc/{pid}/task").iterdir()))


def descriptor_count(pid):
    return len(list(pathlib.Path(f"/proc/{pid}/fd").iterdir()))


def resident_bytes(pid):
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(re.search(r"^Rss:\s+(\d+) kB", text, re.MULTILINE).group(1)) * 1024


def child_of(pid):
    """The process that a tracer has started."""
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    if not text:
        raise BenchError("the tracer has no child")
    return int(text[0])


def reset_peak(pid):
    """From now on the highest resident size counts anew."""
    pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5")


def peak_bytes(pid):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^VmHWM:\s+(\d+) kB", text, re.MULTILINE).group(1)) * 1024
