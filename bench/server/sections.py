"""The measurements of whole servers. Each returns figures; docs/performance.md says what they mean."""

import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack

import figures
from server import servers


def apache(module, starts, rounds, say):
    say(f"Apache {module}: CPU time, throughput, response times, memory")
    kept, closed = [], []
    # Where a process happens to lie in memory moves its speed by a percent.
    for start in range(starts):
        with ExitStack() as stack:
            started = {variant: stack.enter_context(
                servers.start_apache(module, variant, servers.FIRST_PORT + index))
                for index, variant in enumerate(servers.VARIANTS)}
            kept += load(started, start, rounds, 48)
            closed += load(started, start, (rounds + 3) // 4, 1)
            for server in started.values():
                server.wait_for_counts(rounds * 480)
    result = apache_figures(f"Apache {module}", kept)
    result += apache_figures(f"Apache {module}, a connection for each request", closed)
    say(f"Apache {module}: instructions")
    counts = {variant: count_instructions(module, variant)
              for variant in servers.VARIANTS if variant != "bare again"}
    return result + instruction_figures(f"Apache {module}", counts)


def load(started, start, rounds, per_connection):
    output = servers.load(started, f"rounds={rounds}", "turn=480", f"per-connection={per_connection}")
    return servers.rows(output, start)


def apache_figures(section, rows):
    result = []
    for series in figures.compare(rows, "bare"):
        row = series.variant
        if series.measure == "cpu":
            result.append(figures.median_only(section, row, "CPU us/request", ".1f",
                                              [value / 1000 for value in series.values]))
        if row == "bare":
            continue
        if series.measure in ("cpu", "rate", "p99"):
            unit = {"cpu": "CPU %", "rate": "throughput %", "p99": "p99 %"}[series.measure]
            result.append(figures.median(section, row, unit, "+.1f", series.changes()))
        if series.measure == "dirty":
            result.append(figures.median_only(section, row, "KB/process", "+.0f",
                                              series.differences()))
    return result


def count_instructions(module, variant):
    """Per request, from what 480 more of them take; they repeat to a few in ten thousand."""
    with ThreadPoolExecutor() as pool:
        fewer = pool.submit(instructions_of, module, variant, servers.FIRST_PORT, 192)
        more = pool.submit(instructions_of, module, variant, servers.FIRST_PORT + 1, 672)
        return (more.result() - fewer.result()) // 480


def instructions_of(module, variant, port, requests):
    """Of one process from its start to its end, outside the system's calls."""
    server, directory = servers.start_counted_apache(module, variant, port)
    with server:
        servers.load({"one": server}, "connections=1", "in-flight=1", "warm-up=0", "rounds=1",
                     f"turn={requests}")
    return int(re.search(r"Collected : (\d+)", (directory / "output").read_text()).group(1))


def instruction_figures(section, counts):
    result = []
    for variant, count in counts.items():
        result.append(figures.single(section, variant, "instructions", "d", count))
        if variant != "bare":
            result.append(figures.single(section, variant, "instructions %", "+.1f",
                                         100 * count / counts["bare"] - 100))
    return result


def connections(count, starts, rounds):
    """A threaded server with so many open connections."""
    rows = []
    for start in range(starts):
        with servers.start_many_connections_server(False, servers.FIRST_PORT) as bare, \
             servers.start_many_connections_server(True, servers.FIRST_PORT + 1) as shim:
            output = servers.load(
                {"bare": bare, "shim": shim}, f"connections={count}", f"in-flight={min(count, 16)}",
                "per-connection=1000000", f"warm-up={2 * count + 2000}", f"rounds={rounds}",
                "turn=1920")
            rows += servers.rows(output, start)
            shim.wait_for_counts(1920 * rounds)
    return connection_figures(count, rows)


def connection_figures(count, rows):
    section, result = "Open connections of a threaded server", []
    for series in figures.compare(rows, "bare"):
        if series.variant == "bare":
            if series.measure == "cpu":
                result.append(figures.median_only(section, str(count), "bare, CPU us/request", ".1f",
                                                  [value / 1000 for value in series.values]))
        elif series.measure == "cpu":
            result.append(figures.median(section, str(count), "CPU ns/request", "+.0f",
                                         series.differences()))
        elif series.measure == "rate":
            result.append(figures.median(section, str(count), "throughput %", "+.1f",
                                         series.changes()))
        elif series.measure == "dirty":
            for unit, kilobytes in (("MB", 1024), ("KB/connection", count)):
                result.append(figures.median_only(section, str(count), unit, "+.1f",
                                                  series.differences(per=kilobytes)))
    return result


def publication(workers, rounds, milliseconds):
    """Workers that publish into 1, 3 and 16 shared records."""
    section, result = "Publishing workers", []
    for series in publishing(workers, 0, rounds, milliseconds):
        if series.measure == "cpu":
            result.append(figures.median(section, row_of(workers, series),
                                         "CPU ns/publication, back to back", ".0f",
                                         series.differences()))
    five_requests_of_work = 150000  # nanoseconds
    for series in publishing(workers, five_requests_of_work, rounds, milliseconds):
        unit = "CPU %, at work" if series.measure == "cpu" else "throughput %, at work"
        result.append(figures.median(section, row_of(workers, series), unit, "+.1f",
                                     series.changes()))
    return result


def publishing(workers, work, rounds, milliseconds):
    output = subprocess.run(
        [str(servers.BENCH / "publishing_workers"), str(workers), str(work), str(rounds),
         str(milliseconds), "0", "1", "3", "16"], check=True, text=True,
        stdout=subprocess.PIPE).stdout
    return [series for series in figures.compare(servers.rows(output), "0")
            if series.variant != "0"]


def row_of(workers, series):
    return f"{workers} workers into {series.variant} shared"
