"""The segment, as docs/segment-format.md has it: configuring, reading counts, semaphores."""

import ctypes
import struct
import time
from collections import Counter
from pathlib import Path

CONFIG_SIZE, RECORD_SIZE = 310856, 4656
INTERVAL, VERSION, NUM_CATEGORIES, NUM_HOSTS, CATEGORY = 4, 8, 12, 52, 92
SITE_NAME, HOST_NAME, PARENT_PID = 301892, 303172, 310852
CATEGORY_SIZE, SECTION, SECTION_SIZE = 2012, 68, 324
DIRTY, SEMAPHORE = (4640, 4644, 4648), 4652
GETVAL, SETVAL, SEM_UNDO, IPC_NOWAIT = 12, 16, 0x1000, 0x800
WRITING = -1000  # the version of a block that is not finished

# Gauges are left out: publications add them again and again.
BLOCK = ("connections", "requests", "bytesSent", "bytesReceived", "errors", "droppedRequests", None,
         "redirects", "clientErrors", "serverErrors")
CATEGORY_BLOCK = ("bytesSent", "requests", "errors", "droppedRequests")

libc = ctypes.CDLL(None, use_errno=True)
libc.shmat.restype = ctypes.c_void_p
libc.shmdt.argtypes = [ctypes.c_void_p]


def objects(kind):
    """Identifiers of the System V objects of this namespace; kind: shm or sem."""
    lines = Path("/proc/sysvipc/" + kind).read_text().splitlines()[1:]
    return [int(line.split()[1]) for line in lines]


def set_semaphore(identifier, value):
    libc.semctl(identifier, 0, SETVAL, ctypes.c_int(value))


def semaphore_step(identifier, step):
    operation = struct.pack("<Hhh", 0, step, IPC_NOWAIT | SEM_UNDO)
    return libc.semop(identifier, operation, 1) == 0


def section(pattern):
    pieces = [piece.encode() for piece in pattern.split("*") if piece]
    return struct.pack("<i288sii6i", len(pieces), b"".join(piece.ljust(48, b"\0") for piece in pieces),
                       pattern.startswith("*"), pattern.endswith("*"),
                       *(len(pieces[i]) if i < len(pieces) else 0 for i in range(6)))


def block(sites, interval):
    """What an agent writes: everything before parentPid. sites: index -> (names, patterns)."""
    data = bytearray(PARENT_PID)
    struct.pack_into("<iii", data, 0, max(sites) + 1, interval, WRITING)
    for s, (names, patterns) in sites.items():
        struct.pack_into("<i", data, NUM_CATEGORIES + 4 * s, len(patterns))
        struct.pack_into("<i", data, NUM_HOSTS + 4 * s, len(names) - 1)
        for h, name in enumerate(names):
            at = SITE_NAME + 128 * s if h == 0 else HOST_NAME + 768 * s + 128 * (h - 1)
            data[at:at + len(name)] = name.encode()
        for c, pattern in enumerate(patterns):
            at = CATEGORY + CATEGORY_SIZE * (15 * s + c)
            struct.pack_into("<i", data, at + 64, 1)
            data[at + SECTION:at + SECTION + SECTION_SIZE] = section(pattern)
    return data


class Segment:
    def __init__(self, identifier, structures):
        self.id, self.structures = identifier, structures
        self.address = libc.shmat(identifier, None, 0)
        if self.address == ctypes.c_void_p(-1).value:
            raise RuntimeError(f"segment {identifier} cannot be attached")
        size = CONFIG_SIZE + structures * RECORD_SIZE
        self.memory = memoryview((ctypes.c_char * size).from_address(self.address)).cast("B")
        self.semaphores = [self.record_word(i, SEMAPHORE).value for i in range(structures)]
        self.highest = (1 << 30) + 1  # above what hostile writers use

    def word(self, offset):
        return ctypes.c_int32.from_address(self.address + offset)

    def record_word(self, record, offset):
        return self.word(CONFIG_SIZE + record * RECORD_SIZE + offset)

    def detach(self):
        libc.shmdt(self.address)

    def configure(self, sites, interval, half_written=None):
        """The protocol for agents; with half_written the block stays like that for six seconds."""
        self.word(VERSION).value = WRITING
        if half_written:
            self.memory[:PARENT_PID] = block(half_written, interval)
            time.sleep(6)
        self.memory[:PARENT_PID] = block(sites, interval)
        self.highest += 1
        self.word(VERSION).value = self.highest

    def counts(self):
        sums = Counter()
        for i in range(self.structures):
            data = bytes(self.memory[CONFIG_SIZE + i * RECORD_SIZE:][:RECORD_SIZE])

            def add(group, fields, at):
                values = struct.unpack_from(f"<{len(fields)}I", data, at)
                sums.update({(group, field): value for field, value in zip(fields, values) if field})
            add("total", BLOCK, 0)
            for s in range(10):
                add(f"site {s}", BLOCK, 40 + 40 * s)
                for c in range(15):
                    add(f"category {s}.{c}", CATEGORY_BLOCK, 440 + 420 * s + 28 * c)
        return sums

    def repair(self):
        """Makes counts reliable again after hostile writers: one unit in each semaphore, the
        identifiers, and dirty flags that let publications go on adding."""
        for _ in range(5):
            for i, semaphore in enumerate(self.semaphores):
                self.record_word(i, SEMAPHORE).value = semaphore
                if semaphore >= 0 and libc.semctl(semaphore, 0, GETVAL) != 1:
                    set_semaphore(semaphore, 1)
                for flag in DIRTY:
                    self.record_word(i, flag).value = 1
            time.sleep(0.1)


def difference(now, before):
    """What came on; counters wrap at 2^32."""
    return +Counter({key: (now[key] - before[key]) % 2**32 for key in now})
