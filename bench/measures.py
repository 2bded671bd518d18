"""What is measured: processor time per request in alternating rounds, user instructions, system
calls, and resident memory. README.md says why it is done this way.
"""

import collections
import dataclasses
import os
import pathlib
import re
import shutil
import signal
import statistics
import subprocess
import time

import loads
from processes import (BenchError, child_of, cpu_nanoseconds, descriptor_count, expect, peak_bytes,
                       reset_peak, resident_bytes, settle, thread_count)

MEBIBYTE = 2**20
TRACED_SECONDS = 60      # at most, for what a traced server has still to do
WAITS = {"epoll_wait", "epoll_pwait", "epoll_pwait2", "restart_syscall"}


class Ratios:
    """The ratios of one server to another over the rounds."""

    def __init__(self, values):
        self.values = list(values)

    @property
    def median(self):
        return statistics.median(self.values)

    def __str__(self):
        if len(self.values) < 4:
            low, high = min(self.values), max(self.values)
        else:
            low, _, high = statistics.quantiles(self.values, n=4, method="inclusive")
        return f"{self.median:.2f} ({low:.2f}-{high:.2f})"


def cpu_per_request(bench, target, load, requests):
    """Nanoseconds of processor time of one fresh server per request of one load."""
    with bench.server(target, load.service) as (server, port), \
            bench.load(port, *load.words, "--wait", "--warmup", load.warmup,
                       "--requests", requests) as client:
        expect(client, "ready")
        settle(server.pid)
        before = cpu_nanoseconds(server.pid)
        client.tell("go")
        expect(client, "done")
        settle(server.pid)
        after = cpu_nanoseconds(server.pid)
        client.tell("end")
        client.wait(10)
        return (after - before) / requests


def cpu_rounds(bench, targets, load, requests, rounds, seconds):
    """Rounds in which every server has its turn, each time in another order.

    Returns ({name: [ns, ...]}, {name: reason}): a server that fails is left out from then on.
    Ends early, but not before the third round, once `seconds` have passed.
    """
    results, failures = collections.defaultdict(list), {}
    end = time.monotonic() + seconds
    for turn in range(rounds):
        shift = turn % len(targets)
        for target in targets[shift:] + targets[:shift]:
            if target.name in failures:
                continue
            try:
                results[target.name].append(cpu_per_request(bench, target, load, requests))
            except BenchError as error:
                failures[target.name] = str(error)
        if turn >= 2 and time.monotonic() > end:
            break
    return results, failures


def median_microseconds(nanoseconds):
    return statistics.median(nanoseconds) / 1000


def ratios(results, name, *bases):
    """One server's time over the mean of the bases' times, round by round."""
    means = map(statistics.mean, zip(*(results[base] for base in bases)))
    return Ratios(one / mean for one, mean in zip(results[name], means))


def instructions_per_request(bench, target, words, few, many, service="plain"):
    """User instructions under callgrind; the difference of two runs leaves out the start. `words`
    is what the load program is told."""
    first = _instructions(bench, target, words, few, service)
    return (_instructions(bench, target, words, many, service) - first) / (many - few)


def _instructions(bench, target, words, requests, service):
    file = pathlib.Path(bench.directory) / "callgrind.out"
    file.unlink(missing_ok=True)
    wrapper = ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={file}"]
    with bench.server(target, service, wrapper) as (server, port):
        bench.run_load(port, *words, "--requests", requests)
        settle(server.pid, TRACED_SECONDS)
    text = file.read_text() if file.exists() else ""
    match = re.search(r"^totals: (\d+)", text, re.MULTILINE)
    if not match:
        raise BenchError("callgrind left no total")
    return int(match.group(1))


class Calls:
    """System calls per request by name, waiting for events apart."""

    def __init__(self, by_name):
        self.by_name = {name: count for name, count in by_name.items()
                        if name not in WAITS and abs(count) >= 0.005}
        self.total = sum(self.by_name.values())
        self.waits = max(0, sum(count for name, count in by_name.items() if name in WAITS))

    def details(self):
        ordered = sorted(self.by_name.items(), key=lambda item: -item[1])
        parts = [f"{name} {count:.2f}" for name, count in ordered]
        return ", ".join(parts) + f"; waits {self.waits:.2f}"


def calls_per_request(bench, target, words, few, many, service="plain", only=None):
    """System calls of all threads under strace; the difference of two runs leaves out the start.
    With `only`, a name, all others run at full speed: calls that come with time, not with
    requests, are then as rare as they are without a tracer."""
    first = _calls(bench, target, words, few, service, only)
    second = _calls(bench, target, words, many, service, only)
    names = [only] if only else second
    return Calls({name: (second[name] - first[name]) / (many - few) for name in names})


def _calls(bench, target, words, requests, service, only):
    file = pathlib.Path(bench.directory) / "strace.out"
    file.unlink(missing_ok=True)
    wrapper = ["strace", "-f", "-qq", "-c", "-o", str(file)]
    wrapper += ["--seccomp-bpf", "-e", f"trace={only}"] if only else []
    with bench.server(target, service, wrapper) as (tracer, port):
        bench.run_load(port, *words, "--requests", requests)
        traced = child_of(tracer.pid)
        settle(traced, TRACED_SECONDS)
        os.kill(traced, signal.SIGTERM)
        tracer.wait(15)
    counts = collections.Counter()
    for line in file.read_text().splitlines():
        words = line.split()
        if len(words) >= 5 and words[3].isdigit() and words[-1] != "total":
            counts[words[-1]] += int(words[3])
    if not counts:
        raise BenchError("strace counted nothing")
    return counts


@dataclasses.dataclass
class Allocations:
    """Memory that is asked for, per request."""
    blocks: float
    bytes: float


def allocations_per_request(bench, target, words, few, many, service="plain"):
    """What a server allocates, whether it keeps it or not, by valgrind's count; the difference of
    two runs leaves out the start."""
    first = _allocations(bench, target, words, few, service)
    second = _allocations(bench, target, words, many, service)
    return Allocations(*((high - low) / (many - few) for low, high in zip(first, second)))


def _allocations(bench, target, words, requests, service):
    file = pathlib.Path(bench.directory) / "memcheck.out"
    file.unlink(missing_ok=True)
    wrapper = ["valgrind", "--leak-check=no", "--undef-value-errors=no", f"--log-file={file}"]
    with bench.server(target, service, wrapper) as (server, port):
        bench.run_load(port, *words, "--requests", requests)
        settle(server.pid, TRACED_SECONDS)
    text = file.read_text() if file.exists() else ""
    match = re.search(r"total heap usage: ([\d,]+) allocs, [\d,]+ frees, ([\d,]+) bytes", text)
    if not match:
        raise BenchError("valgrind left no total")
    return [int(number.replace(",", "")) for number in match.groups()]


def bytes_per_idle_connection(bench, target, idle):
    """Growth of the resident set over 10,000 connections that have had one answer each."""
    count = loads.IDLE_CONNECTIONS
    with bench.server(target, idle.service) as (server, port):
        bench.run_load(port, "--load", idle.warmup, "--requests", 2000, "--connections", 8)
        settle(server.pid)
        before = resident_bytes(server.pid)
        with bench.load(port, "--load", idle.name, "--wait", "--connections", count) as client:
            expect(client, "ready")
            client.tell("go")
            expect(client, "done")
            settle(server.pid)
            return (resident_bytes(server.pid) - before) / count


def large_upload(bench, target, service, load_name, mebibytes, answer=None):
    """One upload: how far memory rose above that of the idle server, in MiB, and nanoseconds of
    processor time per MiB. `answer` gives the answer by the bytes of the upload."""
    def words(requests, size):
        return ("--load", load_name, "--connections", 1, "--requests", requests, "--body", size,
                "--expect", answer(size) if answer else loads.ANSWER)

    with bench.server(target, service) as (server, port):
        bench.run_load(port, *words(8, 64 * 1024))
        settle(server.pid)
        reset_peak(server.pid)
        peak, time_used = peak_bytes(server.pid), cpu_nanoseconds(server.pid)
        bench.run_load(port, *words(1, mebibytes * MEBIBYTE))
        settle(server.pid)
        return ((peak_bytes(server.pid) - peak) / MEBIBYTE,
                (cpu_nanoseconds(server.pid) - time_used) / mebibytes)


@dataclasses.dataclass
class Waiting:
    """Transfers that wait for their upstream: when the last was answered, how many were there at
    once, and the threads of the server before and at the most."""
    seconds: float
    at_once: int
    threads_before: int
    threads: int


def waiting_transfers(bench, target, upstream, count):
    """So many transfers at once to the upstream, a process, that answers them after two seconds."""
    words = loads.PROXY.words
    with bench.server(target, "proxy") as (server, port):
        bench.run_load(port, *words, "--connections", 8, "--requests", 64)
        settle(server.pid)
        before, idle = thread_count(server.pid), descriptor_count(upstream)
        threads, at_once = before, 0
        with bench.load(port, *words, "--path", "/wait", "--wait", "--connections", count,
                        "--requests", count) as client:
            expect(client, "ready")
            start = time.monotonic()
            client.tell("go")
            while not client.has_output(0.02):
                threads = max(threads, thread_count(server.pid))
                at_once = max(at_once, descriptor_count(upstream) - idle)
            seconds = time.monotonic() - start
            expect(client, "done")
        return Waiting(seconds, at_once, before, threads)


def large_downloads(bench, target):
    """How far memory rose above that of the idle server, in MiB, while clients took the first part
    of a large file at once."""
    path, size = loads.LARGE_FILE
    clients = loads.LARGE_FILE_CLIENTS
    with bench.server(target, "files") as (server, port):
        bench.run_load(port, *loads.LOADS["files-4k"].words, "--connections", 1, "--requests", 8)
        settle(server.pid)
        reset_peak(server.pid)
        before = peak_bytes(server.pid)
        bench.run_load(port, "--load", "keep-alive", "--connections", clients,
                       "--requests", clients, "--path", path, "--answer", size, "--expect", "",
                       "--take", loads.LARGE_FILE_TAKEN_MEBIBYTES * MEBIBYTE)
        settle(server.pid)
        return (peak_bytes(server.pid) - before) / MEBIBYTE


def has_tool(name):
    return shutil.which(name) is not None


def machine_facts(core):
    """Lines on what the figures were taken on."""
    model = "unknown processor"
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            model = line.partition(":")[2].strip()
            break
    virtual = ""
    if shutil.which("systemd-detect-virt"):
        kind = subprocess.run(["systemd-detect-virt"], capture_output=True, text=True, check=False)
        virtual = f", {kind.stdout.strip()}" if kind.returncode == 0 else ""
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    revision = subprocess.run(["git", "describe", "--always", "--dirty", "--tags"], text=True,
                              cwd=pathlib.Path(__file__).parent, capture_output=True, check=False)
    control = pathlib.Path("/proc/sys/net/ipv4/tcp_congestion_control")
    return [f"{model}, {os.cpu_count()} cores{virtual}, {memory:.0f} GiB, "
            f"{os.uname().sysname} {os.uname().release}",
            f"server and load on core {core}; load average {os.getloadavg()[0]:.2f}; "
            f"TCP with {control.read_text().strip()}",
            f"sources at {revision.stdout.strip() or 'no known revision'}"]
