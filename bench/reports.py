"""The tables of bench/run. Each function measures, prints its table and returns what failed."""

import sys

import loads
import measures
import targets
from loads import LOADS
from processes import BenchError

SECONDS_PER_LOAD = 30


def print_table(title, rows):
    """Columns as wide as their widest cell; the first row is the head."""
    print(f"\n{title}")
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  " + "  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    sys.stdout.flush()


def verdict(value, goal, text=None):
    if goal is None:
        return "-"
    return f"<= {text or goal} " + ("yes" if value <= goal else "NO")


def attempt(failures, what, measure, *arguments):
    """A figure, or None with the reason put on the list."""
    try:
        return measure(*arguments)
    except BenchError as error:
        failures.append(f"{what}: {error}")
        return None


def progress(text):
    if sys.stderr.isatty():
        print(f"  {text} ...", file=sys.stderr)


def rounds_of(arguments):
    return arguments.rounds or (5 if arguments.quick else 11)


def report_cpu(bench, servers, chosen, arguments, base="limit"):
    """The chosen loads, each as a ratio to the mean of two turns of `base`."""
    control = f"{base} again"
    columns = [server.name for server in servers if server.name != base]
    columns.sort(key=lambda name: name != control)
    pair = "corvane" in columns and "against" in columns
    head = ["load", "rounds", f"{base} us", *columns]
    head += ["corvane/against"] if pair else []
    head += ["corvane to reach"] if "corvane" in columns else []
    rows, failures = [head], []
    for load in chosen:
        requests = arguments.requests or load.requests
        rounds = rounds_of(arguments)
        progress(f"{load.name}: rounds of {requests} requests")
        taking_part = [server for server in servers if server.serves(load.service)]
        results, failed = measures.cpu_rounds(bench, taking_part, load, requests, rounds,
                                              SECONDS_PER_LOAD)
        failures += [f"{name}, {load.name}: {reason}" for name, reason in failed.items()]
        if base in failed or control in failed:
            continue
        ratio = {name: measures.ratios(results, name, base, control)
                 for name in results if name not in failed}
        ratio[control] = measures.ratios(results, control, base)
        time_of_base = measures.median_microseconds(results[base])
        row = [load.name, str(len(results[base])), f"{time_of_base:.2f}"]
        row += [str(ratio.get(name, "failed" if name in failed else "-")) for name in columns]
        if pair:
            both = "corvane" in ratio and "against" in ratio
            row.append(str(measures.ratios(results, "corvane", "against")) if both else "-")
        if "corvane" in columns:
            row.append(verdict(ratio["corvane"].median, load.ratio, f"{load.ratio or 0:.2f}")
                       if "corvane" in ratio else "failed" if "corvane" in failed else "-")
        rows.append(row)
    print_table(f"Server processor time per request (uploads: per MiB; ws: per message): ratio to "
                f"{base} in the same round, median (quartiles)", rows)
    return failures


def report_instructions(bench, servers, chosen):
    rows, failures = [["load", *(server.name for server in servers), "corvane to reach"]], []
    for load in chosen:
        cells, reached = [], "-"
        for server in servers:
            if not server.serves(load.service):
                cells.append("-")
                continue
            value = attempt(failures, f"instructions of {server.name}, {load.name}",
                            measures.instructions_per_request, bench, server, load.words,
                            *load.traced, load.service)
            cells.append("failed" if value is None else f"{value:,.0f}")
            if server.name == "corvane" and value is not None:
                goal = load.instructions
                reached = verdict(value, goal, f"{goal:,}" if goal else None)
        rows.append([load.name, *cells, reached])
    print_table("User instructions per request (callgrind)", rows)
    return failures


def report_calls(bench, servers, chosen):
    rows, failures = [["load", "server", "calls", "to reach", "which"]], []
    for load in chosen:
        # Few connections: how many accepts find nothing more to accept differs from run to run.
        keeps = load.service in ("upload", "broadcast")
        words = load.words if keeps else [*load.words, "--connections", 16]
        for server in servers:
            if not server.serves(load.service):
                continue
            calls = attempt(failures, f"system calls of {server.name}, {load.name}",
                            measures.calls_per_request, bench, server, words, *load.traced,
                            load.service)
            if calls is None:
                rows.append([load.name, server.name, "failed", "-", ""])
                continue
            goal = load.calls if server.name == "corvane" else None
            rows.append([load.name, server.name, f"{calls.total:.2f}",
                         verdict(round(calls.total, 1), goal), calls.details()])
    print_table("System calls per request, waits for events left out (strace)", rows)
    return failures


def report_idle(bench, servers, idles):
    rows, failures = [["load", "server", "bytes", "to reach"]], []
    pairs = [(idle, server) for idle in idles for server in servers if server.serves(idle.service)]
    for idle, server in pairs:
        value = attempt(failures, f"memory of {server.name}, {idle.name}",
                        measures.bytes_per_idle_connection, bench, server, idle)
        if value is None:
            rows.append([idle.name, server.name, "failed", "-"])
            continue
        goal = idle.bytes if server.name == "corvane" else None
        rows.append([idle.name, server.name, f"{value:,.0f}", verdict(value, goal)])
    print_table(f"Resident bytes per idle connection, over {loads.IDLE_CONNECTIONS:,}", rows)
    return failures


def report_large_uploads(bench, servers, service="upload", goal=None, answer=None):
    """One upload of each framing to every server of the service. `answer` gives its answer by its
    bytes."""
    size, goal = loads.LARGE_UPLOAD_MEBIBYTES, goal or loads.LARGE_UPLOAD_GROWTH_MEBIBYTES
    rows, failures = [["framing", "server", "growth MiB", "to reach", "us per MiB"]], []
    for framing, load in loads.LARGE_UPLOADS.items():
        for server in servers:
            if not server.serves(service):
                continue
            progress(f"{server.name}: {size} MiB, {framing}")
            value = attempt(failures, f"{service} of {size} MiB, {server.name}, {framing}",
                            measures.large_upload, bench, server, service, load, size, answer)
            if value is None:
                rows.append([framing, server.name, "failed", "-", ""])
                continue
            growth, nanoseconds = value
            rows.append([framing, server.name, f"{growth:.1f}",
                         verdict(round(growth, 1), goal if server.name == "corvane" else None),
                         f"{nanoseconds / 1000:.0f}"])
    passed_on = " passed on" if service == "proxy" else ""
    print_table(f"One upload of {size:,} MiB{passed_on}: growth of the resident set at its peak",
                rows)
    return failures


def report_large_downloads(bench, servers, material):
    goal = loads.LARGE_FILE_GROWTH_MEBIBYTES
    rows, failures = [["server", "growth MiB", "to reach"]], []
    targets.make_large_file(material)
    for server in (server for server in servers if server.serves("files")):
        progress(f"{server.name}: {loads.LARGE_FILE_CLIENTS} large downloads")
        value = attempt(failures, f"large downloads from {server.name}", measures.large_downloads,
                        bench, server)
        if value is None:
            rows.append([server.name, "failed", "-"])
            continue
        rows.append([server.name, f"{value:.1f}",
                     verdict(round(value, 1), goal if server.name == "corvane" else None)])
    print_table(f"{loads.LARGE_FILE_CLIENTS} downloads of one GiB at once, each ended by the "
                f"client after {loads.LARGE_FILE_TAKEN_MEBIBYTES} MiB: growth of the resident set "
                "at its peak", rows)
    return failures


def report_loops(bench, build_directory, path, material, cores, arguments):
    """One loop on the bench's core against two that may use all cores."""
    limit, control = targets.limits(build_directory, material)
    servers = [targets.corvane(f"{loops} loop{'s' * (loops > 1)}", path, material, loops,
                               cores if loops > 1 else None) for loops in loads.LOOPS]
    load = LOADS["keep-alive"]
    results, failed = measures.cpu_rounds(
        bench, [limit, *servers, control], load, arguments.requests or load.requests,
        rounds_of(arguments), SECONDS_PER_LOAD)
    failures = [f"{name}: {reason}" for name, reason in failed.items()]
    rows = [["server", "processor time", "system calls", "futex", "to reach"]]
    for server in servers:
        row = [server.name, "failed", "-", "-", "-"]
        if not failed.keys() & {server.name, limit.name, control.name}:
            row[1] = str(measures.ratios(results, server.name, limit.name, control.name))
        if not arguments.no_tools and measures.has_tool("strace"):
            row[2:] = _calls_of_loops(bench, server, load, failures)
        rows.append(row)
    print_table("Loops, per request of keep-alive: processor time as a ratio to the limit, system "
                "calls (strace)", rows)
    return failures


def _calls_of_loops(bench, server, load, failures):
    """All calls, the futex calls, and whether those reach the goal."""
    every = attempt(failures, f"system calls of {server.name}", measures.calls_per_request,
                    bench, server, load.words, 2000, 10_000)
    futex = attempt(failures, f"futex calls of {server.name}", measures.calls_per_request,
                    bench, server, load.words, 20_000, 120_000, load.service, "futex")
    cells = ["failed" if calls is None else f"{calls.total:.2f}" for calls in (every, futex)]
    reached = "-" if futex is None else verdict(round(futex.total, 2), loads.FUTEX_GOAL, "0.00")
    return [*cells, reached]
