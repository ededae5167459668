#!/usr/bin/env python3
"""The client of `demo.sh --https`: keep-alive connections over TLS, and exact counts.

    https_traffic.py PORT CONNECTIONS SECONDS

Prints what tolvane-demo-traffic prints, but for the totals' bytes: those include TLS,
which Python does not show.
"""

import collections
import contextlib
import random
import re
import socket
import ssl
import sys
import time
from concurrent import futures

ELSEWHERE = ("elsewhere.example", "/", None)
MIX = (
    ("shop.example", "/", "pages"),
    ("shop.example", "/index.html", "pages"),
    ("www.shop.example", "/cart/add?item=7", "cart"),
    ("www.shop.example", "/shop-1.html", "cart"),
    ("shop.example", "/photo.jpg", "images"),
    ("shop.example", "/old", None),
    ("shop.example", "/no-such-page", None),
    ("blog.example", "/", None),
    ("blog.example", "/post-1.html", "posts"),
    ("blog.example", "/post-2.html", "posts"),
    ELSEWHERE,
)
SITES = {"shop.example": "shop.example:443", "www.shop.example": "shop.example:443",
         "blog.example": "blog.example:443"}
ANY_CERTIFICATE = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
ANY_CERTIFICATE.check_hostname = False
ANY_CERTIFICATE.verify_mode = ssl.CERT_NONE
ROUNDS = 5  # with several threaded processes, the answering process is random


class Connection:
    """Adds each request to the accounts by name, in the order of the printed columns."""

    def __init__(self, port, accounts):
        self.stream = ANY_CERTIFICATE.wrap_socket(socket.create_connection(("127.0.0.1", port), 30))
        self.accounts = accounts
        self.first, self.counted = True, False

    def close(self):
        self.stream.close()

    def exchange(self, host, path, category):
        request = f"GET {path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode()
        self.stream.sendall(request)
        status, size = self.read_response()
        counts = [1, status // 100 == 4, status // 100 == 3, 0, size, len(request)]
        self.add(category, counts)
        site = SITES.get(host)
        # A connection counts for the first site of the configuration that it requests.
        counts[3] = site is not None and not self.counted
        self.counted = self.counted or counts[3]
        self.add(site, counts)
        counts[3] = self.first
        self.first = False
        self.add("all traffic", counts)

    def add(self, name, counts):
        if name is not None:
            self.accounts[name] = [*map(sum, zip(self.accounts[name], counts))]

    def read_response(self):
        response = b""
        missing = 1
        while missing > 0:
            part = self.stream.recv(1 << 16)
            if not part:
                raise RuntimeError("a response ended early")
            response += part
            head, end, body = response.partition(b"\r\n\r\n")
            if end:
                missing = int(re.search(rb"\r\nContent-Length: (\d+)", head)[1]) - len(body)
        return int(response[9:12]), len(response)


def new_accounts():
    return collections.defaultdict(lambda: [0] * 6)


def call_every_process(port, connections, accounts):
    with contextlib.ExitStack() as stack:
        opened = [stack.enter_context(contextlib.closing(Connection(port, accounts)))
                  for _ in range(connections)]
        for _ in range(2):
            for connection in opened:
                connection.exchange(*ELSEWHERE)


def mix(port, end, seed):
    accounts = new_accounts()
    choice = random.Random(seed)
    while time.monotonic() < end:
        with contextlib.closing(Connection(port, accounts)) as connection:
            for _ in range(choice.randint(1, 20)):
                connection.exchange(*choice.choice(MIX))
                time.sleep(choice.randrange(8) / 1000)
    return accounts


def main():
    port, connections, seconds = map(int, sys.argv[1:])
    total = new_accounts()
    for _ in range(ROUNDS):
        call_every_process(port, connections, total)
        time.sleep(0.1)
    end = time.monotonic() + seconds
    with futures.ThreadPoolExecutor(connections) as pool:
        parts = [pool.submit(mix, port, end, seed) for seed in range(connections)]
    call_every_process(port, connections, total)
    for part in parts:
        for name, counts in part.result().items():
            total[name] = [*map(sum, zip(total[name], counts))]
    for name, counts in total.items():
        if name == "all traffic":
            counts[-2:] = "-", "-"
        print(name, *counts, sep="|")


if __name__ == "__main__":
    main()
