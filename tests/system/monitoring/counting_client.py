"""A client that knows what the collector should say of its requests."""

import collections
import socket
import struct
import time

from measured_machine import SERVER_PORT

SERVER = f'{{server="127.0.0.1:{SERVER_PORT}"}}'


class CountingClient:
    def __init__(self):
        self.counts = collections.Counter()  # by series
        self.seconds = collections.Counter()  # waited for answers, by labels of a category

    def send(self, site, path, category=None, times=1, answered=True):
        """Requests on one connection, as far as the server keeps it."""
        of_site = f'{SERVER[:-1]},site="{site}"}}'
        of_category = category and f'{of_site[:-1]},category="{category}"}}'
        request = f"GET {path} HTTP/1.1\r\nHost: {site}\r\n" + "\r\n" * answered
        connection = None
        for _ in range(times):
            if connection is None:
                connection = socket.create_connection(("127.0.0.1", SERVER_PORT), timeout=10)
                self.add("connections", 1, of_site)
            began = time.monotonic()
            connection.sendall(request.encode())
            self.add("requests", 1, of_site, of_category)
            self.add("received_bytes", len(request), of_site)
            if not answered:
                time.sleep(0.5)  # until it is read
                # Closes with a reset, so that the server cannot answer.
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                self.add("dropped_requests", 1, of_site, of_category)
                break
            answer = read_answer(connection)
            self.add("sent_bytes", len(answer), of_site, of_category)
            status = int(answer.split()[1])
            kind = {2: None, 3: "redirects", 4: "client_errors", 5: "server_errors"}[status // 100]
            if kind:
                self.add(kind, 1, of_site)
            if of_category and status < 400:
                self.counts["tolvane_category_response_seconds_count" + of_category] += 1
                self.seconds[of_category] += time.monotonic() - began
            elif of_category:
                self.counts["tolvane_category_errors_total" + of_category] += 1
            if b"\r\nConnection: close" in answer:
                connection.close()
                connection = None
        if connection:
            connection.close()

    def add(self, what, number, of_site, of_category=None):
        self.counts[f"tolvane_{what}_total{SERVER}"] += number
        self.counts[f"tolvane_site_{what}_total{of_site}"] += number
        if of_category:
            self.counts[f"tolvane_category_{what}_total{of_category}"] += number


def read_answer(connection):
    answer = b""
    while chunk := connection.recv(65536):
        answer += chunk
        head, end, body = answer.partition(b"\r\n\r\n")
        if end and len(body) >= int(head.split(b"Content-Length: ")[1].split()[0]):
            break
    return answer
