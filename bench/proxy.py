"""The tables of the proxy loads: processor time beside nginx's `proxy_pass`, transfers that wait
for their upstream, and the memory of a large upload that is passed on.
"""

import loads
import measures
import peers
import reports
import targets
from reports import attempt, print_table, progress, verdict

BASE = "nginx"


def report(bench, names, arguments, paths, material):
    """The tables of the chosen loads, with one upstream for all servers."""
    if not names:
        return []
    failures = []
    with bench.server(targets.upstream(arguments.build_dir)) as (upstream, port):
        programs = [targets.proxy(name, path, port) for name, path in paths.items()]
        nginx = peers.proxy(BASE, material, port)
        if not nginx:
            print("\nnginx is not installed: the proxy loads have nothing beside them")
        servers = programs + [nginx] if nginx else programs
        if "proxy" in names:
            again = peers.proxy(f"{BASE} again", material, port)
            failures += _report_requests(bench, servers, again, arguments)
        if "proxy-waiting" in names:
            failures += _report_waiting(bench, servers, upstream.pid)
        if "proxy-upload" in names:
            failures += reports.report_large_uploads(bench, servers, "proxy",
                                                     loads.PROXY_UPLOAD_GROWTH_MEBIBYTES, str)
    return failures


def _report_requests(bench, servers, again, arguments):
    failures = []
    if again:
        failures += reports.report_cpu(bench, [*servers, again], [loads.PROXY], arguments, BASE)
    if arguments.no_tools:
        return failures
    if measures.has_tool("valgrind"):
        failures += reports.report_instructions(bench, servers, [loads.PROXY])
    if measures.has_tool("strace"):
        failures += reports.report_calls(bench, servers, [loads.PROXY])
    return failures


def _report_waiting(bench, servers, upstream):
    count, goal = loads.PROXY_WAITING, loads.PROXY_WAITING_SECONDS
    rows = [["server", "seconds", "to reach", "at the upstream", "threads before", "at the most"]]
    failures = []
    for server in servers:
        progress(f"{server.name}: {count} transfers that wait")
        value = attempt(failures, f"waiting transfers of {server.name}",
                        measures.waiting_transfers, bench, server, upstream, count)
        if value is None:
            rows.append([server.name, "failed", "-", "-", "-", "-"])
            continue
        reached = verdict(value.seconds, goal if server.name == "corvane" else None)
        rows.append([server.name, f"{value.seconds:.2f}", reached, f"{value.at_once:,}",
                     str(value.threads_before), str(value.threads)])
    print_table(f"{count:,} transfers at once to an upstream that answers after 2 s", rows)
    return failures
