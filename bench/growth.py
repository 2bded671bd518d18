"""How the cost of a request grows: user instructions with connections, routes, middlewares and
header fields; with the files of a directory the processor time as well, since the kernel searches
it.
"""

import dataclasses
import functools
import pathlib

import loads
import measures
import targets
from reports import SECONDS_PER_LOAD, attempt, print_table, progress, rounds_of, verdict

# Opening and closing 10,000 connections under callgrind takes longer than the keep-alive time.
LONG_LIVED = ("--keep-alive", "3600")


def report(bench, names, arguments, paths, material, traces):
    """The tables of the kinds of growth; those of instructions only where there is a tracer."""
    failures = []
    for name in names:
        sites = []
        if name == "growth-files":
            progress(f"{name}: making {loads.DIRECTORY_FILES[-1]:,} files")
            sites = [_site(bench, material, size) for size in loads.DIRECTORY_FILES]
        if traces and name == "growth-middlewares":
            failures += _report_middlewares(bench, arguments)
        elif traces:
            failures += _table(bench, name, *_rows(name, arguments, paths, material, sites))
        if sites:
            failures += _report_times(bench, name, arguments, paths, sites)
    return failures


def _rows(name, arguments, paths, material, sites):
    """What grows, to which sizes, and a row for each server or kind of route: its name, the place
    of the size that the last is compared with, the figure to reach, and the points."""
    programs = [targets.corvane(program, path, material, more=LONG_LIVED)
                for program, path in paths.items()]
    if name == "growth-routes":
        return "routes, the last one asked for", loads.ROUTES, [
            (kind, 0, loads.ROUTES_GOAL, [_of_routes(arguments.build_dir, kind, size)
                                          for size in loads.ROUTES])
            for kind in ("literal", "pattern")]
    if name == "growth-connections":
        return "connections", loads.CONNECTIONS, [
            (server.name, 1, _goal(server.name, loads.CONNECTIONS_GOAL),
             [_of_connections(server, size) for size in loads.CONNECTIONS])
            for server in programs]
    if name == "growth-files":
        return "files in the directory", loads.DIRECTORY_FILES, [
            (program, 0, _goal(program, loads.DIRECTORY_FILES_GOAL),
             [_of_files(targets.corvane(program, path, site)) for site in sites])
            for program, path in paths.items()]
    return "header fields of a request", loads.FIELDS, [
        (server.name, 0, None, [_of_fields(server, size) for size in loads.FIELDS])
        for server in programs]


def _goal(name, goal):
    return goal if name == "corvane" else None


# Each gives the server, the words for the load program, two numbers of requests, and the service
# if it is not the plain one.
def _of_connections(server, size):
    # All connections are open and have had an answer before the requests that make the difference.
    few = max(500, size)
    words = ["--load", "keep-alive", "--connections", size, "--open"]
    return server, words, few, few + max(4000, 2 * size)


def _of_routes(build_directory, kind, size):
    server = targets.host(build_directory, kind, size)
    return server, ["--load", "keep-alive", "--path", f"/route{size:04}/42"], 500, 2500


def _of_middlewares(build_directory, kind, size):
    server = targets.host(build_directory, "literal", 1, kind, size)
    return server, ["--load", "keep-alive", "--path", "/route0001/42"], 1000, 21_000


def _of_fields(server, size):
    return server, ["--load", "keep-alive", "--fields", size], 500, 2500


def _of_files(server):
    return server, loads.LOADS["files-4k"].words, 500, 2500, "files"


def _site(bench, material, size):
    """A directory in which the file that is asked for is one of so many."""
    path, length = loads.FILES["4k"]
    root = pathlib.Path(bench.directory) / f"files-{size}"
    targets.make_file(root, path, length)
    for number in range(1, size):
        (root / path.lstrip("/")).with_name(f"other-{number:06}.js").touch()
    return dataclasses.replace(material, files=str(root))


def _report_times(bench, name, arguments, paths, sites):
    """Processor time with many files over that with few, whose second turn is the control. The
    limit shows the kernel's part."""
    makers = {"limit": lambda site: targets.limits(arguments.build_dir, site)[0]}
    for program, path in paths.items():
        makers[program] = functools.partial(targets.corvane, program, path)
    rows, failures = [["", "few again", "growth", "to reach"]], []
    for program, make in makers.items():
        servers = [make(site) for site in (sites[0], sites[-1], sites[0])]
        for server, turn in zip(servers, ("few", "many", "few again")):
            server.name = turn
        progress(f"{name}: processor time of {program}")
        load = loads.LOADS["files-4k"]
        results, failed = measures.cpu_rounds(
            bench, servers, load, arguments.requests or load.requests, rounds_of(arguments),
            SECONDS_PER_LOAD)
        failures += [f"{name} of {program}, {turn}: {reason}" for turn, reason in failed.items()]
        if failed:
            rows.append([program, "failed", "failed", "-"])
            continue
        growth = measures.ratios(results, "many", "few", "few again")
        goal = _goal(program, loads.DIRECTORY_FILES_GOAL)
        rows.append([program, str(measures.ratios(results, "few again", "few")), str(growth),
                     verdict(round(growth.median, 2), goal, f"{goal or 0:.2f}")])
    few, many = loads.DIRECTORY_FILES[0], loads.DIRECTORY_FILES[-1]
    print_table(f"Server processor time per request by the number of files in the directory: "
                f"{many:,} against {few:,}, median (quartiles)", rows)
    return failures


def _report_middlewares(bench, arguments):
    """What each middleware adds that does nothing, by operations of its own, of the base's, or
    as authentication does on an open route."""
    sizes, goal = loads.MIDDLEWARES, loads.MIDDLEWARES_GOAL
    rows, failures = [["", *map(str, sizes), "the first", "each more", "to reach"]], []
    for kind in ("own", "inherited", "authentication"):
        values = []
        for size in sizes:
            progress(f"growth-middlewares: {kind}, {size}")
            values.append(attempt(failures, f"growth-middlewares, {kind} at {size}",
                                  measures.instructions_per_request, bench,
                                  *_of_middlewares(arguments.build_dir, kind, size)))
        if None in values:
            rows.append([kind, *("failed" for _ in sizes), "-", "-", "-"])
            continue
        steps = [(more - less) / (high - low) for less, more, low, high in
                 zip(values, values[1:], sizes, sizes[1:])]
        rows.append([kind, *(f"{value:,.0f}" for value in values),
                     *(f"{step:.0f}" for step in steps), verdict(round(max(steps)), goal)])
    print_table("User instructions per request by the number of middlewares that do nothing", rows)
    return failures


def _table(bench, name, what, sizes, kinds):
    rows = [["", *(f"{size:,}" for size in sizes), "growth", "to reach"]]
    failures = []
    for kind, base, goal, points in kinds:
        values = []
        for size, point in zip(sizes, points):
            progress(f"{name}: {kind}, {size:,}")
            values.append(attempt(failures, f"{name} of {kind} at {size:,}",
                                  measures.instructions_per_request, bench, *point))
        row = [kind, *("failed" if value is None else f"{value:,.0f}" for value in values)]
        if values[base] is None or values[-1] is None:
            rows.append([*row, "-", "-"])
            continue
        ratio = values[-1] / values[base]
        rows.append([*row, f"{ratio:.2f}", verdict(round(ratio, 2), goal, f"{goal or 0:.2f}")])
    base = kinds[0][1]
    print_table(f"User instructions per request by the number of {what} (growth: {sizes[-1]:,} "
                f"against {sizes[base]:,})", rows)
    return failures
