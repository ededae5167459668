"""What an HTTPS request costs an Apache with threads, by HTTP/1.1 and by HTTP/2."""

import random
import subprocess
from contextlib import ExitStack
from pathlib import Path

import figures
from server import servers

PROTOCOLS = ("HTTP/1.1", "HTTP/2")
VARIANTS = ("bare", "bare again", "shim matched", "access log")
TURN = 4000  # requests
OPTIONS = {"HTTP/1.1": ["--h1", "-c", "8", "-H", "host: www.shop.example"],
           "HTTP/2": ["-c", "4", "-m", "20", "-H", ":authority: www.shop.example"]}
DIRECTIVES = """LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so
LoadModule socache_shmcb_module /usr/lib/apache2/modules/mod_socache_shmcb.so
LoadModule http2_module /usr/lib/apache2/modules/mod_http2.so
SSLCertificateFile {home}/certificate.pem
SSLCertificateKeyFile {home}/key.pem
Protocols h2 http/1.1
MaxKeepAliveRequests 0
"""


def apache_event(protocol, starts, rounds, say):
    say(f"Apache event, HTTPS: {protocol}")
    make_certificate()
    rows = []
    for start in range(starts):
        with ExitStack() as stack:
            started = {variant: stack.enter_context(start_server(variant, servers.FIRST_PORT + index))
                       for index, variant in enumerate(VARIANTS)}
            for server in started.values():
                load(protocol, server)
            for turn in range(rounds):
                for variant in random.sample(VARIANTS, len(VARIANTS)):
                    rows.append(("cpu", variant, (start, turn), measured(protocol, started[variant])))
            started["shim matched"].wait_for_counts((rounds + 1) * TURN)
    return table(f"Apache event, HTTPS, {protocol}", rows)


def table(section, rows):
    result = []
    for series in figures.compare(rows, "bare"):
        result.append(figures.median_only(section, series.variant, "CPU us/request", ".1f",
                                          [value / 1000 for value in series.values]))
        if series.variant != "bare":
            result.append(figures.median(section, series.variant, "CPU %", "+.2f",
                                         series.changes()))
            result.append(figures.median(section, series.variant, "CPU ns/request", "+.0f",
                                         series.differences()))
    return result


def make_certificate():
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=shop.example", "-keyout", servers.HOME / "key.pem",
                    "-out", servers.HOME / "certificate.pem"],
                   check=True, stderr=subprocess.DEVNULL)


def start_server(variant, port):
    return servers.start_apache("event", variant, port, DIRECTIVES.format(home=servers.HOME))


def load(protocol, server):
    """A turn of requests for a small file, on connections that stay open."""
    subprocess.run(
        [*servers.CLIENT_CORE, "h2load", "-n", str(TURN), *OPTIONS[protocol],
         f"https://127.0.0.1:{server.port}/img/logo.svg"],
        check=True, stdout=subprocess.DEVNULL)


def measured(protocol, server):
    """Nanoseconds of processor time per request."""
    before = processor_time(server.pid)
    load(protocol, server)
    return (processor_time(server.pid) - before) / TURN


def processor_time(pid):
    """Nanoseconds that the threads of a process and of its children have run."""
    tasks = Path(f"/proc/{pid}/task")
    own = sum(int((task / "schedstat").read_text().split()[0]) for task in tasks.iterdir())
    children = (tasks / str(pid) / "children").read_text().split()
    return own + sum(map(processor_time, map(int, children)))
