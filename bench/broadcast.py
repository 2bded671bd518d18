"""What a broadcast costs per session that receives it, by the size of the message: a server that
copies the message for each of them allocates more for the larger one.
"""

import loads
import measures
from reports import attempt, print_table, progress, verdict

COPIED_GOAL = 0.0    # bytes allocated per byte of the message and receiver


def report(bench, servers):
    sizes = loads.BROADCAST_SIZES
    rows, failures = [["server", "message", "instructions", "allocations", "bytes", "to reach"]], []
    for server in (server for server in servers if server.serves(loads.BROADCAST.service)):
        found = [_figures(bench, server, size, failures) for size in sizes]
        for size, (instructions, allocations) in zip(sizes, found):
            row = [server.name, f"{size:,} B"]
            row.append("failed" if instructions is None else f"{instructions:,.0f}")
            row += ["failed", "-", "-"] if allocations is None else [
                f"{allocations.blocks:.2f}", f"{allocations.bytes:,.1f}", "-"]
            rows.append(row)
        (_, small), (_, large) = found[0], found[-1]
        if small and large:
            copied = (large.bytes - small.bytes) / (sizes[-1] - sizes[0])
            goal = COPIED_GOAL if server.name == "corvane" else None
            rows.append([server.name, "per byte", "", "", f"{copied:.2f}",
                         verdict(round(copied, 2), goal, f"{COPIED_GOAL:.2f}")])
    print_table("Broadcast to 5,000 sessions, per session: user instructions (callgrind), "
                "allocations (valgrind)", rows)
    return failures


def _figures(bench, server, size, failures):
    load = loads.BROADCAST
    what, words = f"{server.name}, broadcast of {size} B", [*load.words, "--body", size]
    progress(what)
    return [attempt(failures, f"{measure.__name__} of {what}", measure, bench, server, words,
                    *load.traced, load.service)
            for measure in (measures.instructions_per_request, measures.allocations_per_request)]
