"""How the user instructions of a request grow: with connections, routes and header fields."""

import loads
import measures
import targets
from reports import attempt, print_table, progress, verdict

# Opening and closing 10,000 connections under callgrind takes longer than the keep-alive time.
LONG_LIVED = ("--keep-alive", "3600")


def report(bench, name, build_directory, paths, identity):
    """The table of one kind of growth: a row for each server or kind of route."""
    if name == "growth-routes":
        sizes, what = loads.ROUTES, "routes, the last one asked for"
        rows = [(kind, 0, loads.ROUTES_GOAL, [_of_routes(build_directory, kind, size)
                                              for size in sizes])
                for kind in ("literal", "pattern")]
    elif name == "growth-connections":
        sizes, what = loads.CONNECTIONS, "connections"
        rows = [(server.name, 1, loads.CONNECTIONS_GOAL if server.name == "corvane" else None,
                 [_of_connections(server, size) for size in sizes])
                for server in _programs(paths, identity)]
    else:
        sizes, what = loads.FIELDS, "header fields of a request"
        rows = [(server.name, 0, None, [_of_fields(server, size) for size in sizes])
                for server in _programs(paths, identity)]
    return _table(bench, name, what, sizes, rows)


def _programs(paths, identity):
    return [targets.corvane(name, path, identity, more=LONG_LIVED) for name, path in paths.items()]


# Each gives the server, the words for the load program, and two numbers of requests.
def _of_connections(server, size):
    # All connections are open and have had an answer before the requests that make the difference.
    few = max(500, size)
    words = ["--load", "keep-alive", "--connections", size, "--open"]
    return server, words, few, few + max(4000, 2 * size)


def _of_routes(build_directory, kind, size):
    server = targets.host(build_directory, kind, size)
    return server, ["--load", "keep-alive", "--path", f"/route{size:04}/42"], 500, 2500


def _of_fields(server, size):
    return server, ["--load", "keep-alive", "--fields", size], 500, 2500


def _table(bench, name, what, sizes, kinds):
    rows = [["", *(f"{size:,}" for size in sizes), "growth", "to reach"]]
    failures = []
    for kind, base, goal, points in kinds:
        values = []
        for size, (server, words, few, many) in zip(sizes, points):
            progress(f"{name}: {kind}, {size:,}")
            values.append(attempt(failures, f"{name} of {kind} at {size:,}",
                                  measures.instructions_per_request, bench, server, words, few,
                                  many))
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
