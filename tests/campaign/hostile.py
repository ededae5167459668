#!/usr/bin/env python3
"""Any local user, doing what the modes of a server's objects permit: SEED SECONDS GROUP.
Prints how often each action was taken."""

import random
import sys
import time
from collections import Counter
from pathlib import Path

import segment as s

VALUES = (0, 1, -1, -2, 6, 7, 15, 16, 1000, 2**31 - 1, -2**31)
# Versions stay below this, since the campaign itself has to raise them further.
HIGHEST = 1 << 30


class Intruder:
    def __init__(self, chance, end):
        self.chance, self.end, self.segment = chance, end, None
        self.groups = {"fields": (self.numbers, self.pieces, self.texts, self.interval, self.raised,
                                  self.sunk, self.storm, self.parent, self.record, self.spray,
                                  self.handoff),
                       "locks": (self.zeroed, self.zeroed, self.taken, self.flooded)}

    def put(self, offset):
        self.segment.word(offset).value = self.chance.choice(
            VALUES + (self.chance.randint(-2**31, 2**31 - 1),))

    def numbers(self):
        self.put(0)
        self.put(s.NUM_CATEGORIES + 4 * self.chance.randrange(20))

    def section(self):
        category = s.CATEGORY + s.CATEGORY_SIZE * self.chance.randrange(30)
        self.put(category + 64)
        return category + s.SECTION + s.SECTION_SIZE * self.chance.randrange(6)

    def pieces(self):
        at = self.section()
        for offset in (0, 292, 296, 300 + 4 * self.chance.randrange(6)):
            self.put(at + offset)

    def texts(self):
        at, size = self.chance.choice(((self.section() + 4, 288), (s.SITE_NAME, 8960)))
        start = self.chance.randrange(size)
        length = self.chance.randint(1, size - start)
        self.segment.memory[at + start:at + start + length] = self.chance.choice(
            (b"*" * length, b"a" * length, self.chance.randbytes(length)))

    # Intervals between these are valid and would make a round that long.
    def interval(self):
        self.segment.word(s.INTERVAL).value = self.chance.choice((1, 2, 3601, 2**31 - 1))

    def raised(self, most=100):
        word = self.segment.word(s.VERSION)
        word.value = min(HIGHEST, max(word.value, 0) + self.chance.randint(1, most))

    def sunk(self):
        self.segment.word(s.VERSION).value = self.chance.choice((0, -1, -2, -1000, 1))

    def storm(self):
        for _ in range(400):
            self.raised(1)
            time.sleep(0.001)

    def parent(self):
        self.put(s.PARENT_PID)

    def record(self):
        at = s.CONFIG_SIZE + s.RECORD_SIZE * self.chance.randrange(self.segment.structures)
        self.put(at + self.chance.choice((s.SEMAPHORE, *s.DIRTY)))
        self.put(at + 4 * self.chance.randrange(s.SEMAPHORE // 4))

    def spray(self):
        start = self.chance.randrange(s.NUM_CATEGORIES, s.CONFIG_SIZE - 4096)
        self.segment.memory[start:start + 4096] = self.chance.randbytes(4096)
        self.raised()

    def handoff(self):
        for path in Path("/opt/tolvane/agent/config").glob("webadapter.*"):
            path.write_text(self.chance.choice(("", "Shmid=0\n", "x" * 10000)))

    # Held for longer than the campaign waits for a response.
    def zeroed(self, value=0, seconds=10):
        semaphores = s.objects("sem")
        for semaphore in semaphores:
            s.set_semaphore(semaphore, value)
        self.wait(seconds)
        for semaphore in semaphores:
            s.set_semaphore(semaphore, 1)

    def flooded(self):
        self.zeroed(self.chance.choice((2, 32767)), 1)

    def taken(self):
        taken = [semaphore for semaphore in s.objects("sem") if s.semaphore_step(semaphore, -1)]
        self.wait(10)
        for semaphore in taken:
            s.semaphore_step(semaphore, 1)

    def wait(self, seconds):
        time.sleep(min(seconds, max(0.0, self.end - time.monotonic())))

    def attach(self):
        for line in Path("/proc/sysvipc/shm").read_text().splitlines()[1:]:
            identifier, size = int(line.split()[1]), int(line.split()[3])
            if size > s.CONFIG_SIZE:
                self.segment = s.Segment(identifier, (size - s.CONFIG_SIZE) // s.RECORD_SIZE)

    def run(self, group):
        done = Counter()
        self.attach()
        while time.monotonic() < self.end:
            action = self.chance.choice(self.groups[group])
            action()
            done[action.__name__] += 1
            time.sleep(0.005)
        for name, count in done.items():
            print(name, count)


if __name__ == "__main__":
    Intruder(random.Random(int(sys.argv[1])), time.monotonic() + float(sys.argv[2])).run(sys.argv[3])
