"""Clients with books of what the server has to count, and clients that misbehave."""

import random
import socket
import struct
import threading
import time
from collections import Counter

from segment import BLOCK, CATEGORY_BLOCK

HOST = "127.0.0.1"


def get(host, url, more=""):
    return f"GET {url} HTTP/1.1\r\nHost: {host}\r\n{more}\r\n".encode()


def post(host, url, size):
    return f"POST {url} HTTP/1.1\r\nHost: {host}\r\nContent-Length: {size}\r\n\r\n".encode() + b"p" * size


SITES = {0: (["a.test", "www.a.test"], ["/small*", "/large*", "/cgi/*", "/200*"]),
         1: (["b.test:80"], ["*"]),
         2: (["probe.test"], [])}
# Never in force: only ever in a block whose version says that it is being written.
DECOY = {9: (["a.test", "www.a.test", "b.test", "probe.test", "nowhere.test"], ["*"])}
# Text, site and category (-1: none), whether the client ends its side behind it.
APACHE_MIX = [
    (get("a.test", "/small.html"), 0, 0, False),
    (get("b.test", "/small.html"), 1, 0, False),
    (get("www.a.test", "/moved"), 0, -1, False),
    (get("nowhere.test", "/small.html"), -1, -1, False),
    (get("a.test", "/small-but-missing"), 0, 0, False),
    (get("a.test", "/cgi/hello"), 0, 2, False),
    (get("b.test", "/busy"), 1, 0, False),
    (get("b.test", "/fail"), 1, 0, False),
    (get("a.test", "/large.bin"), 0, 1, False),
    (post("a.test", "/small.html", 30000), 0, 0, False),
    (post("a.test", "/cgi/hello", 3000), 0, 2, False),
    (get("nowhere.test", "/missing"), -1, -1, False),
    (get("a.test", "/small.html")[:-2], 0, 0, True),
    (b"GET /sma", -1, -1, True)]
THREADED_MIX = [
    (get("a.test", "/200"), 0, 3, False),
    (get("www.a.test", "/302/deep"), 0, -1, False),
    (get("b.test", "/404/low"), 1, 0, False),
    (get("nowhere.test", "/503"), -1, -1, False),
    (post("a.test", "/200/post", 0), 0, 3, False),
    (get("a.test", "/500"), 0, -1, False),
    (get("a.test", "/drop"), 0, -1, True),
    (get("a.test", "/200")[:-2], 0, 3, True)]


class ServerSilent(Exception):
    """A connection was refused, cut or without an answer in time."""


class Connection:
    def __init__(self, port, books):
        self.books, self.seen_site, self.ended, self.begun = books, False, False, 0
        try:
            self.socket = socket.create_connection((HOST, port), timeout=20)
        except OSError as error:
            raise ServerSilent(f"connecting: {error}") from error
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        books["total", "connections"] += 1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def begin(self, text):
        self.socket.sendall(text)
        self.begun = len(text)

    def finish(self, entry):
        """Sends what begin has not, takes the response and enters both into the books."""
        text, site, category, cut_off = entry
        try:
            self.socket.sendall(text[self.begun:])
            self.begun = 0
            if cut_off:
                self.socket.shutdown(socket.SHUT_WR)
            answer = self.answer(cut_off)
        except OSError as error:
            raise ServerSilent(f"{text[:60]!r}: {error!r}") from error
        if not answer and not cut_off:
            raise ServerSilent(f"{text[:60]!r}: no answer")
        status = int(answer[9:12]) // 100 if answer else 0
        row = Counter(requests=1, bytesReceived=len(text), bytesSent=len(answer),
                      errors=status in (4, 5), droppedRequests=not answer, redirects=status == 3,
                      clientErrors=status == 4, serverErrors=status == 5)
        self.enter("total", row, BLOCK)
        if site >= 0:
            self.enter(f"site {site}", row + Counter(connections=not self.seen_site), BLOCK)
            self.seen_site = True
        if category >= 0:
            self.enter(f"category {site}.{category}", row, CATEGORY_BLOCK)

    def enter(self, group, row, fields):
        self.books.update({(group, field): int(row[field]) for field in fields if row[field]})

    def answer(self, to_the_end):
        data, missing = b"", True
        while to_the_end or missing:
            piece = self.socket.recv(1 << 16)
            if not piece:
                self.ended = True
                return data if to_the_end else b""
            data += piece
            head, end, body = data.partition(b"\r\n\r\n")
            head = head.lower()
            self.ended = b"connection: close" in head
            at = head.find(b"content-length: ")
            length = int(head[at + 16:].split()[0]) if end and at >= 0 else 0
            missing = not end or len(body) < length or (
                b"transfer-encoding: chunked" in head and not body.endswith(b"0\r\n\r\n"))
        return data


def occupy(port, connections, entry, requests):
    """One request on so many connections at once that every process has some, then the others."""
    books, opened = Counter(), []
    try:
        for _ in range(connections):
            opened.append(Connection(port, books))
            opened[-1].begin(entry[0][:-2])
        for connection in opened * requests:
            connection.finish(entry)
    except OSError as error:
        raise ServerSilent(repr(error)) from error
    finally:
        for connection in opened:
            connection.socket.close()
    return books


class Traffic:
    """Well-behaved clients, each with `limit` connections of `length` requests at most."""

    def __init__(self, ports, mix, number, seed, length, limit=10**9):
        self.books = [Counter() for _ in range(number)]
        self.failures, self.done = [], 0
        self.stop, self.pause, self.idle = threading.Event(), threading.Event(), [False] * number
        self.threads = [threading.Thread(target=self.client, daemon=True,
                                         args=(i, ports, mix, seed + i, length, limit))
                        for i in range(number)]
        for thread in self.threads:
            thread.start()

    def client(self, number, ports, mix, seed, length, limit):
        chance = random.Random(seed)
        while limit > 0 and not self.stop.is_set():
            self.idle[number] = self.pause.is_set()
            if self.pause.is_set():
                time.sleep(0.01)
                continue
            limit -= 1
            try:
                with Connection(chance.choice(ports), self.books[number]) as connection:
                    for _ in range(chance.randint(1, length)):
                        connection.finish(chance.choice(mix))
                        self.done += 1
                        if connection.ended or self.pause.is_set() or self.stop.is_set():
                            break
            except ServerSilent as error:
                self.failures.append(str(error))
                time.sleep(0.05)

    def paused(self):
        self.pause.set()
        while not all(self.idle):
            time.sleep(0.01)

    def finish(self):
        for thread in self.threads:
            thread.join()
        return sum(self.books, Counter())


def misbehave(port, chance):
    """One connection of a client that does what no client should; nothing of it is compared."""
    small, large, many = get("a.test", "/small.html"), get("a.test", "/large.bin"), chance.randint(1, 9000)
    kind = chance.choice(("text", "text", "text", "slow", "reset", "close"))
    text = chance.choice((
        b"", small[:many % 40], chance.randbytes(many), small * (many % 50), get("a.test", "/" + "*" * many),
        get("a.test", "/", "X: " + "x" * 3 * many + "\r\n"), b"GET / HTTP/1.1\r\nHost:" + b" " * many,
        get("a" * (many % 300), "/\0%00"))) if kind == "text" else large
    with socket.create_connection((HOST, port), timeout=2) as connection:
        for byte in small if kind == "slow" else b"":
            connection.send(bytes([byte]))
            time.sleep(0.01)
        connection.sendall(text)
        if kind == "reset":
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        elif chance.random() < 0.5:
            connection.settimeout(0.3)
            connection.recv(1000)
