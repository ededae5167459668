#!/usr/bin/env python3
"""The measurements that scripts/bench.sh starts, as root, in namespaces of their own."""

import argparse
import os
import subprocess
import sys
import time
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parent.parent / "scripts"))

import call_costs
import figures
import private_machine
from server import https, sections, servers

SECTIONS = ("per-call", "parsing", "apache", "https", "connections", "publication", "collector")
TABLE = Path("build/bench-table.txt")


def say(text):
    print(time.strftime("%T"), text, file=sys.stderr, flush=True)


def collector_load(seconds, sites, categories):
    output = subprocess.run(
        [str(servers.BENCH / "collector_load"), str(servers.TOLVANE), "50", "16", str(seconds),
         str(sites), str(categories)], check=True, text=True, stdout=subprocess.PIPE).stdout
    return figures.read(output)


def measure(section, quick):
    starts, rounds = (1, 5) if quick else (4, 90)
    if section == "per-call":
        say("Per call")
        for build in ("bench",) if quick else ("bench", "bench32"):
            yield from call_costs.per_call(Path("build").resolve() / build)
    if section == "parsing":
        say("Parsing and matching")
        yield from call_costs.parsing(Path("build/bench").resolve())
    if section == "apache":
        for module in ("prefork", "worker", "event"):
            yield from sections.apache(module, starts, rounds, say)
    if section == "https":
        for protocol in https.PROTOCOLS:
            yield from https.apache_event(protocol, starts, rounds, say)
    if section == "connections":
        for count in (10, 100, 1000, servers.most_connections(10000)):
            say(f"{count} open connections")
            yield from sections.connections(count, starts, rounds)
    if section == "publication":
        for workers in (10,) if quick else (1, 10, 50, 200):
            say(f"{workers} workers that publish")
            yield from sections.publication(workers, 10, 50 if quick else 200)
    if section == "collector":
        say("Collector")
        for sites, categories in ((2, 3), (10, 15)):
            yield from collector_load(5 if quick else 20, sites, categories)


def machine():
    def lines(path, key, separator):
        return [line.split(separator, 1)[1].strip().strip('"')
                for line in Path(path).read_text().splitlines() if line.startswith(key)]
    system, = lines("/etc/os-release", "PRETTY_NAME=", "=")
    processor = lines("/proc/cpuinfo", "model name", ":")[0]
    memory, = lines("/proc/meminfo", "MemTotal", ":")
    kernel = os.uname()
    return (f"{time.strftime('%F %H:%M UTC', time.gmtime())}, {system}, "
            f"Linux {kernel.release} {kernel.machine}\n"
            f"{processor}, {os.cpu_count()} cores, {int(memory.split()[0]) / 1048576:.0f} GB")


def load_average():
    return " ".join(Path("/proc/loadavg").read_text().split()[:3])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", default=",".join(SECTIONS))
    options = parser.parse_args()
    private_machine.enter()
    servers.HOME.mkdir()
    servers.write_files()
    before = load_average()
    measured = [figure for section in options.only.split(",")
                for figure in measure(section, options.quick)]
    length = "quick" if options.quick else "long"
    text = (f"{machine()}\nload average before {before}, after {load_average()}; {length} run\n\n"
            f"{figures.table(measured)}\n")
    TABLE.write_text(text)
    print(text, end="")


if __name__ == "__main__":
    main()
