"""The faults of a round, while clients go on sending requests."""

import random
import signal
import subprocess
import sys
import threading
import time
from collections import Counter

import clients
from servers import WORK, eventually

SILENCE = 6  # seconds without any response


class Chaos:
    def __init__(self, server, faults, chance, mix, ports, seconds, clean):
        self.server, self.faults, self.chance, self.clean = server, faults, chance, clean
        self.mix, self.ports, self.seconds = mix, ports, seconds
        self.injected, self.problems, self.over = Counter(), [], threading.Event()

    def run(self):
        """Returns the books of the well-behaved clients."""
        self.traffic = clients.Traffic(self.ports, self.mix, 3, self.chance.randrange(2**31),
                                       self.chance.choice((1, 8, 8)))
        intruders = [self.intruder(group) for group in ("fields", "locks") if group in self.faults]
        misbehaving = [threading.Thread(target=self.misbehave, daemon=True,
                                        args=(self.chance.randrange(2**31),))
                       for _ in range(2 if "clients" in self.faults else 0)]
        for thread in misbehaving:
            thread.start()
        try:
            self.act_until(time.monotonic() + self.seconds)
        finally:
            self.over.set()
            self.traffic.stop.set()
            books = self.traffic.finish()
            for thread in misbehaving:
                thread.join()
            for intruder in intruders:
                self.collect(intruder)
        if self.server.vfork_every:
            self.injected["vfork"] = self.traffic.done // self.server.vfork_every
        if self.clean and self.traffic.failures:
            self.problems.append("a client: " + self.traffic.failures[0])
        if not eventually(30, self.server.complete):
            self.problems.append("the server has not all its workers; its status is "
                                 f"{self.server.process.poll()}")
        return books

    def act_until(self, end):
        possible = {"kill": not self.server.netscape, "term": not self.server.netscape,
                    "reload": self.server.apache, "config": True, "half": True}
        actions = [getattr(self, name) for name, able in possible.items() if able and name in self.faults]
        done, since = 0, time.monotonic()
        while time.monotonic() < end and not self.problems:
            if actions and self.chance.random() < 0.15:
                self.chance.choice(actions)()
                since = time.monotonic()
            time.sleep(0.1)
            if self.traffic.done > done:
                done, since = self.traffic.done, time.monotonic()
            elif time.monotonic() - since > SILENCE:
                self.problems.append(f"no response for {SILENCE} s: {self.traffic.failures[-1:]}")

    def kill(self):
        self.injected["kill"] += self.server.kill_one(self.chance, signal.SIGKILL)

    def term(self):
        self.injected["term"] += self.server.kill_one(self.chance, signal.SIGTERM)

    # Where counts are compared no client may send a request while the server closes the
    # connection. And what a threaded process counts after its last interval goes with it, so
    # that has to be a quiet one.
    def reload(self):
        if self.clean:
            self.traffic.paused()
            time.sleep(2.5 if self.server.type == 3 else 0.2)
        if not self.server.replace_workers(graceful=True):
            self.problems.append("no graceful reload")
        self.injected["reload"] += 1
        self.traffic.pause.clear()

    # The sites that are compared keep their places; others come and go.
    def config(self):
        sites = dict(clients.SITES)
        for s in range(3, self.chance.randint(3, 9)):
            sites[s] = ([f"other{s}.test", f"more{s}.test"],
                        self.chance.choices(("*", "/x*y*z", "*.gif", "/index"),
                                            k=self.chance.randint(0, 15)))
        interval = 1 if self.clean else self.chance.choice((1, 1, 2, 2**31 - 1))
        self.server.segment.configure(sites, interval)
        self.injected["config"] += 1

    # New processes start meanwhile, and must take nothing of the unfinished block.
    def half(self):
        writer = threading.Thread(target=self.server.segment.configure, daemon=True,
                                  args=(clients.SITES, 1, clients.DECOY))
        writer.start()
        if self.server.apache and "reload" in self.faults:
            self.reload()
        writer.join()
        self.injected["half"] += 1

    def intruder(self, group):
        command = [sys.executable, str(WORK / "hostile.py"), str(self.chance.randrange(2**31)),
                   str(self.seconds), group]
        return subprocess.Popen(command, user="nobody", group="nogroup", extra_groups=[], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def collect(self, intruder):
        output, errors = intruder.communicate(timeout=30)
        if intruder.returncode != 0:
            raise RuntimeError("the hostile writer failed: " + errors[-500:])
        for line in output.splitlines():
            self.injected[line.split()[0]] += int(line.split()[1])

    def misbehave(self, seed):
        chance = random.Random(seed)
        while not self.over.wait(0.02):
            try:
                clients.misbehave(chance.choice(self.ports), chance)
            except OSError:
                pass  # the server's business
            self.injected["clients"] += 1
