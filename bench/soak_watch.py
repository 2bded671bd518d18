"""What a soak sees of its server: a sample per second, the lines that are printed, and whether the
line of the samples is flat.
"""

import contextlib
import dataclasses
import os
import pathlib
import re
import statistics

from processes import resident_bytes

MEBIBYTE = 1 << 20
GROWTH_RATIO = 1.05
GROWTH_BYTES = 4 * MEBIBYTE
FIFTHS = 5


@dataclasses.dataclass
class Sample:
    """One second of the run."""
    second: float
    resident: int      # bytes
    heap: int          # bytes that the program holds
    descriptors: int
    connections: int
    threads: int
    requests: int      # since the start
    edits: int
    log_lines: int
    processor: float   # seconds since the start
    milliseconds: list


def take_sample(host, second, milliseconds):
    """What the server tells and what the kernel says of it."""
    host.tell("count")
    told = {name: int(value) for name, value in re.findall(r"(\w+)=(\d+)", host.line(10))}
    stat = pathlib.Path(f"/proc/{host.pid}/stat").read_text().rpartition(")")[2].split()
    ticks = os.sysconf("SC_CLK_TCK")
    return Sample(second=second, resident=resident_bytes(host.pid), heap=told["heap"],
                  descriptors=len(os.listdir(f"/proc/{host.pid}/fd")),
                  connections=told["connections"], threads=int(stat[17]),
                  requests=told["requests"], edits=told["edits"], log_lines=told["log"],
                  processor=(int(stat[11]) + int(stat[12])) / ticks, milliseconds=milliseconds)


HEAD = ("    s  RSS MiB  heap MiB  descriptors  connections  threads  req/s   CPU  "
        "probe ms: median    99 %   worst")


def latency(milliseconds):
    """Median, 99 % and worst."""
    if not milliseconds:
        return "       -       -       -"
    ordered = sorted(milliseconds)
    high = ordered[min(len(ordered) - 1, len(ordered) * 99 // 100)]
    return f"{statistics.median(ordered):8.1f}{high:8.1f}{ordered[-1]:8.1f}"


def line(sample, before):
    """The sample as a line; rates since the one before."""
    seconds = max(sample.second - before.second, 0.001)
    return (f"{sample.second:5.0f}{sample.resident / MEBIBYTE:9.1f}{sample.heap / MEBIBYTE:10.2f}"
            f"{sample.descriptors:13}{sample.connections:13}{sample.threads:9}"
            f"{(sample.requests - before.requests) / seconds:7.0f}"
            f"{(sample.processor - before.processor) / seconds * 100:5.0f}%"
            f"          {latency(sample.milliseconds)}")


def spread(values, unit=1):
    ordered = sorted(values)
    return (f"{ordered[0] / unit:.1f}..{statistics.median(ordered) / unit:.1f}.."
            f"{ordered[-1] / unit:.1f}")


def summary(title, samples):
    """Least, median and most of some samples."""
    first, last = samples[0], samples[-1]
    seconds = max(last.second - first.second, 0.001)
    times = [time for sample in samples for time in sample.milliseconds]
    return (f"-- {title}: RSS {spread([sample.resident for sample in samples], MEBIBYTE)} MiB, "
            f"heap {spread([sample.heap for sample in samples], MEBIBYTE)} MiB, "
            f"descriptors {spread([sample.descriptors for sample in samples])}, "
            f"connections {spread([sample.connections for sample in samples])}, "
            f"{(last.requests - first.requests) / seconds:.0f} requests/s, "
            f"{(last.edits - first.edits) / seconds:.0f} edits/s, "
            f"{(last.processor - first.processor) / seconds * 100:.0f} % of a core, "
            f"probe ms (median, 99 %, worst) {latency(times).split()}")


def growth(samples, field):
    """The medians of the second fifth and of the last, in bytes."""
    fifth = max(len(samples) // FIFTHS, 1)
    values = [getattr(sample, field) for sample in samples]
    return statistics.median(values[fifth:2 * fifth]), statistics.median(values[-fifth:])


def is_flat(early, late):
    return late <= early * GROWTH_RATIO or late <= early + GROWTH_BYTES


def files_left(directory):
    """The files of uploads: those whose connection ended before the request did are the host's."""
    return [path for path in pathlib.Path(directory).rglob("*") if path.is_file()]


def remove_old_files(directory, now, age):
    """Removes what nobody has written to for so long; how many there were."""
    count = 0
    for path in files_left(directory):
        with contextlib.suppress(FileNotFoundError):
            if now - path.stat().st_mtime > age:
                path.unlink()
                count += 1
    return count
