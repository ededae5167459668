#!/usr/bin/env python3
"""Rounds of faults against servers that run with the library under test; see docs/testing.md."""

import argparse
import ctypes
import random
import shutil
import socket
import struct
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

import clients
import servers
from chaos import Chaos
from segment import difference, libc
from servers import PORTS, Server, connections, eventually, leftovers

FAULTS = ("kill", "term", "reload", "fork", "vfork", "fields", "locks", "clients", "config", "half",
          "parent")
# These leave no certain counts behind.
UNCERTAIN = {"kill", "term", "fields", "locks", "clients", "parent"}
KINDS = ("prefork", "worker", "event", "threaded", "threaded32")
SANITIZERS = ("plain", "asan", "tsan")


class Failure(Exception):
    pass


def enter_namespace():
    """A tmpfs of ours and a loopback interface; campaign.sh has made the namespaces."""
    libc.mount(b"tmpfs", b"/opt", b"tmpfs", 0, b"mode=0755")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as some:
        request = ctypes.create_string_buffer(struct.pack("16sh22x", b"lo", 0x1 | 0x40))
        libc.ioctl(some.fileno(), 0x8914, request)  # SIOCSIFFLAGS


def install(build):
    """What other users have to be able to load."""
    for directory, preset in (("bin", "campaign"), ("bin32", "campaign32")):
        target = servers.WORK / directory
        target.mkdir(parents=True)
        shutil.copy(build / preset / "bin/threaded_server", target)
        shutil.copy(build / preset / "lib/libcampaign_vforking.so", target)
        shutil.copy(build / preset / "lib/libtolvane.so", target / "tolvane-plain.so")
    for sanitizer in ("asan", "tsan"):
        shutil.copy(build / f"campaign-{sanitizer}/lib/libtolvane.so",
                    servers.WORK / f"bin/tolvane-{sanitizer}.so")
    for source in ("hostile.py", "segment.py"):
        shutil.copy(Path(__file__).parent / source, servers.WORK)


class Round:
    def __init__(self, seed, combinations, seconds, allowed):
        self.seed = seed
        kind, sanitizer = combinations[seed % len(combinations)]
        self.chance = random.Random(seed)
        self.clean = self.chance.random() < 0.4 if allowed is None else not UNCERTAIN & set(allowed)
        drawn = {fault for fault in FAULTS if self.chance.random() < 0.6}
        self.faults = (drawn if allowed is None else set(allowed)) - (
            UNCERTAIN if self.clean else {"half"})
        self.seconds = seconds / 2  # the other half goes into starting, waiting and comparing
        self.server = Server(kind, sanitizer, self.chance, self.faults)
        self.mix = clients.APACHE_MIX if self.server.apache else clients.THREADED_MIX
        self.ports = PORTS if self.server.apache else PORTS[:1]
        self.books, self.before = Counter(), Counter()
        self.compared, self.counted, self.injected = 0, 0, Counter()

    def run(self):
        servers.fresh_places()
        self.server.prepare()
        try:
            self.server.start()
            self.configure()
            self.chaos_phase()
            if "parent" in self.faults:
                self.restart_after_kill()
            self.exact_phase()
        finally:
            self.server.kill_all()
        if leftovers():
            raise Failure("left behind: " + ", ".join(leftovers()))

    # A threaded process has a new configuration after an interval, a process of type 0 after
    # its next publication.
    def configure(self):
        segment = self.server.segment
        segment.configure(clients.SITES, 1)
        url = "/small.html" if self.server.apache else "/200"
        probe = (clients.get("probe.test", url), 2, -1, False)
        differences = []

        def probed():
            before = segment.counts()
            books = clients.occupy(PORTS[0], self.server.threads(), probe,
                                   6 if self.server.type == 0 else 1)
            self.books += books
            if self.server.type == 0 or eventually(4, lambda: not self.wrong(before, books)):
                return True
            differences[:] = self.wrong(before, books)
            return False
        # Twice: a process may have accepted more than its share of connections.
        if not eventually(45, lambda: probed() and probed(), 0.3):
            raise Failure("a new configuration is not in force after 45 s: " + "; ".join(differences))

    def wrong(self, before, books, groups=""):
        now = difference(self.server.segment.counts(), before)
        return [f"{group} {field} {now[group, field]} instead of {books[group, field]}"
                for group, field in sorted(set(now) | set(books))
                if group.startswith(groups) and now[group, field] != books[group, field]]

    def compare(self, what, groups=""):
        """The probe's site counts from some unknown request on, so it is left out."""
        def wrong():
            return [text for text in self.wrong(self.before, self.books, groups)
                    if not text.startswith("site 2 ")]
        if not eventually(6, lambda: not wrong(), 0.2):
            raise Failure(what + ": " + "; ".join(wrong()[:8]))
        self.compared += len(self.books)
        self.counted += self.books["total", "requests"]

    def chaos_phase(self):
        chaos = Chaos(self.server, self.faults, self.chance, self.mix, self.ports, self.seconds,
                      self.clean)
        try:
            self.books += chaos.run()
        finally:
            self.injected = chaos.injected
        if chaos.problems:
            raise Failure("; ".join(chaos.problems[:4]))
        decoy = self.wrong(self.before, self.books, "site 9")
        if self.clean and decoy:
            raise Failure("an unfinished configuration was used: " + "; ".join(decoy))
        # Apache's own wake-up requests, at a reload, are counted too; where new processes
        # found an unfinished configuration they could not tell sites.
        if self.clean and self.server.type != 0:
            torn = "half" in self.faults and self.server.apache
            self.quiet()
            # A worker that a reload ends before it has a configuration has not published yet.
            if not (torn and "reload" in self.faults):
                self.compare("while faults lasted", "total" if torn else "")
        if not self.clean or self.server.type != 0 or "reload" in self.faults or "half" in self.faults:
            self.start_anew()

    def quiet(self):
        """Nothing is on its way to the server any more."""
        if not eventually(40, lambda: connections() == 0):
            raise Failure(f"{connections()} connections stay open")
        time.sleep(0.5)

    def start_anew(self):
        """Books and counts from here on, with the counts kept in processes published before."""
        self.quiet()
        self.server.segment.repair()
        # A semaphore that was set while a process held it loses a unit when that process ends.
        anew = self.server.keeps_counts() or self.server.type == 0 and "locks" in self.faults
        if anew:
            if not self.server.replace_workers():
                raise Failure("the server does not replace its workers")
            self.server.segment.repair()
        else:
            self.configure()
            self.quiet()
            time.sleep(0 if self.server.type == 0 else 2.5)
            self.server.segment.repair()
        self.before, self.books = self.server.segment.counts(), Counter()
        if anew:
            self.configure()

    def restart_after_kill(self):
        self.injected["parent"] += 1
        self.server.segment.repair()
        self.server.kill_all()
        (servers.ROOT / "logs/httpd.pid").unlink(missing_ok=True)
        self.server.start()
        self.before, self.books = Counter(), Counter()
        self.configure()

    def exact_phase(self):
        traffic = clients.Traffic(self.ports, self.mix, 6, self.seed, 6, limit=12)
        self.books += traffic.finish()
        if traffic.failures:
            raise Failure("exact phase, a client: " + traffic.failures[0])
        self.quiet()
        if self.server.type != 0:
            self.compare("exact phase")
        problem = self.server.stop()
        if problem:
            raise Failure(problem)
        # What processes of type 0 kept comes at their exit.
        self.compare("exact phase")


def keep(place, round_, failure):
    """Logs and configuration of a failed round."""
    directory = place / f"round-{round_.seed}"
    for name, source in (("server", servers.ROOT / "logs"), ("conf", servers.ROOT / "conf"),
                         ("shim", servers.AGENT / "logs"), ("reports", servers.WORK / "reports")):
        shutil.copytree(source, directory / name, dirs_exist_ok=True,
                        ignore=lambda folder, names: [name for name in names if "sock" in name])
    (directory / "failure").write_text(failure + "\n")


def play(round_, place):
    """Plays a round; returns its failure, if any, and prints its line."""
    started, failure = time.monotonic(), ""
    try:
        round_.run()
    except Exception as error:  # whatever it was, the round failed
        failure = str(error) if isinstance(error, Failure) else repr(error)
    failure = "; ".join(([failure] if failure else []) + round_.server.crashes()[:3]).replace("\n", " ")
    if failure:
        keep(place, round_, failure)
    faults = ", ".join(f"{name} {count}" for name, count in sorted(round_.injected.items()))
    print(f"seed {round_.seed}  {round_.server.describe()}  {round_.server.sanitizer}  "
          f"{'clean' if round_.clean else 'uncertain'}  {time.monotonic() - started:.0f} s  "
          f"{round_.counted} requests, {round_.compared} counts compared  [{faults}]  "
          f"{'FAILED: ' + failure if failure else 'passed'}", flush=True)
    return failure


def print_summary(rounds):
    failed = sum(bool(failure) for _, failure in rounds)
    injected = sum((r.injected for r, _ in rounds), Counter())
    print(f"{len(rounds)} rounds, {failed} failed, {sum(r.counted for r, _ in rounds)} requests, "
          f"{sum(r.compared for r, _ in rounds)} counts compared; faults: "
          + ", ".join(f"{name} {count}" for name, count in sorted(injected.items())))


def choice(names):
    def parse(text):
        chosen = text.split(",")
        if not set(chosen) <= set(names):
            raise argparse.ArgumentTypeError("choose from " + ",".join(names))
        return chosen
    return parse


def main():
    parser = argparse.ArgumentParser(prog="scripts/campaign.sh")
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--seed", type=int, help="of the first round; the next ones follow")
    parser.add_argument("--rounds", type=int, default=10**6, help="at most so many")
    parser.add_argument("--kinds", type=choice(KINDS), default=list(KINDS))
    parser.add_argument("--sanitizers", type=choice(SANITIZERS), default=list(SANITIZERS))
    parser.add_argument("--faults", type=choice(FAULTS),
                        help="all of these in every round; by default each round draws some")
    parser.add_argument("--round", type=float, default=30, metavar="SECONDS")
    parser.add_argument("--keep-going", action="store_true")
    options = parser.parse_args()
    # The sanitizers' runtimes are installed for the machine's own word size.
    combinations = [(kind, sanitizer) for sanitizer in options.sanitizers for kind in options.kinds
                    if kind != "threaded32" or sanitizer == "plain"]
    enter_namespace()
    install(Path(__file__).resolve().parents[2] / "build")
    place = Path(tempfile.mkdtemp(prefix="tolvane-campaign."))
    seed = random.randrange(10**6) if options.seed is None else options.seed
    print(f"seed {seed}; logs of failed rounds in {place}", flush=True)
    end, rounds = time.monotonic() + 60 * options.minutes, []
    while time.monotonic() < end and len(rounds) < options.rounds:
        round_ = Round(seed + len(rounds), combinations, options.round, options.faults)
        rounds.append((round_, play(round_, place)))
        if rounds[-1][1] and not options.keep_going:
            break
    print_summary(rounds)
    failed = any(failure for _, failure in rounds)
    if not failed:
        place.rmdir()
    return int(failed)


if __name__ == "__main__":
    sys.exit(main())
