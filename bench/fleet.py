#!/usr/bin/env python3
"""Measures a Prometheus that scrapes the collectors of many machines.

    unshare --mount --ipc --net /usr/bin/python3 -B bench/fleet.py PAGE_SERVER [options]

PAGE_SERVER is the program of that name in build/test/bin: it gives the page /metrics of a
collector of one server with all sites and categories. Each simulated machine has an address
of its own on loopback and returns this page with counts that grow. Prometheus runs with
monitoring/prometheus.example.yml and with intervals half as long: then the windows of the
rules contain as many samples after half of their length.
"""

import argparse
import contextlib
import json
import re
import shutil
import subprocess
import sys
import threading
import time
import urllib.parse
import urllib.request
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "scripts"))

import private_machine

HOME = Path("/opt/fleet")
PROMETHEUS = "127.0.0.1:9090"
PORT = 9931
CLUSTERS = ("north", "east", "south", "west")
GROWING = re.compile(r"^\w+_(?:total|sum|count)[ {]")
SCRAPE, EVALUATION = 15, 30


def read(address, path, **parameters):
    url = f"http://{address}{path}?{urllib.parse.urlencode(parameters)}"
    with urllib.request.urlopen(url, timeout=60) as answer:
        return answer.read().decode()


def query(expression):
    answer = json.loads(read(PROMETHEUS, "/api/v1/query", query=expression))
    return [(sample["metric"], float(sample["value"][1])) for sample in answer["data"]["result"]]


def real_page(page_server):
    """The text of /metrics, from the collector's own code."""
    with subprocess.Popen([page_server, "full"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True) as server:
        port = server.stdout.readline().strip()
        text = read(f"127.0.0.1:{port}", "/metrics")
        server.stdin.close()
    return text


class Machines(BaseHTTPRequestHandler):
    """All machines: the address to which a request comes tells which."""

    protocol_version = "HTTP/1.1"
    template, values, growing = "", [], []
    began = time.time()

    @classmethod
    def take(cls, text):
        lines = []
        for line in text.replace("%", "%%").splitlines():
            if not line.startswith("#"):
                name, value = line.rsplit(" ", 1)
                cls.values.append(float(value))
                cls.growing.append(bool(GROWING.match(line)))
                line = name + " %.10g"
            lines.append(line)
        cls.template = "\n".join(lines) + "\n"

    def do_GET(self):
        number = int(self.connection.getsockname()[0].rsplit(".", 1)[1])
        added = int(time.time() - self.began) * (1 + number / 10)
        body = (self.template % tuple(
            value + grows * added for value, grows in zip(self.values, self.growing))).encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/plain; version=0.0.4")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class Server(ThreadingHTTPServer):
    def handle_error(self, request, client_address):
        """Prometheus ends its connections when it stops."""

    daemon_threads = True
    request_queue_size = 256


def write_configuration(hosts, rules):
    shutil.copytree(ROOT / "monitoring", HOME)
    example = (HOME / "prometheus.example.yml").read_text()
    example = re.sub("scrape_interval: .*", f"scrape_interval: {SCRAPE}s", example)
    example = re.sub("evaluation_interval: .*", f"evaluation_interval: {EVALUATION}s", example)
    if not rules:
        example = re.sub("rule_files: .*", "rule_files: []", example)
    (HOME / "prometheus.yml").write_text(example)
    groups = [{"targets": [f"127.1.0.{i + 1}:{PORT}" for i in range(number, hosts, len(CLUSTERS))],
               "labels": {"cluster": cluster}} for number, cluster in enumerate(CLUSTERS)]
    (HOME / "tolvane").mkdir()
    (HOME / "tolvane/machines.yml").write_text(json.dumps(groups))


def write_history(text):
    """The series of the last two days with which the rules of normal values compare."""
    pairs = sorted(set(re.findall(r'site="([^"]+)",category="([^"]+)"', text)))
    sites = sorted({site for site, _ in pairs})
    now = int(time.time()) // 60 * 60 - 600
    path = HOME / "history"
    with path.open("w") as file:
        def write(name, labels, hours):
            for at in range(now - hours * 3600, now, 60):
                file.write(f'{name}{{job="tolvane",{labels}}} {1 + at % 7} {at}\n')

        name = "site_category:tolvane_category_response_seconds:mean5m"
        file.write(f"# TYPE {name} gauge\n")
        for cluster in CLUSTERS:
            for site, category in pairs:
                write(name, f'cluster="{cluster}",site="{site}",category="{category}"', 25)
        name = "site:tolvane_site_requests:rate5m"
        file.write(f"# TYPE {name} gauge\n")
        for cluster in CLUSTERS:
            for site in sites:
                write(name, f'cluster="{cluster}",site="{site}"', 49)
        file.write("# EOF\n")
    subprocess.run(["promtool", "tsdb", "create-blocks-from", "openmetrics", path, HOME / "data"],
                   check=True, stdout=subprocess.DEVNULL)
    path.unlink()


@contextlib.contextmanager
def prometheus():
    with (HOME / "prometheus.log").open("w") as log:
        process = subprocess.Popen(
            ["prometheus", f"--config.file={HOME}/prometheus.yml", f"--web.listen-address={PROMETHEUS}",
             f"--storage.tsdb.path={HOME}/data"], stdout=log, stderr=log)
    try:
        yield process
    finally:
        process.terminate()
        process.wait()


def own_metrics():
    return {name: float(value) for name, value in
            re.findall(r"^([^# ][^ ]*(?:\{.*\})?) (\S+)$", read(PROMETHEUS, "/metrics"), re.MULTILINE)}


def figures(process, hosts, before, seconds):
    own = own_metrics()
    per_machine = query('max(scrape_samples_scraped{job="tolvane"})')[0][1]
    recorded = sum(count for _, count in query('count({__name__=~".+:.+"})'))
    for what, expression in (
            ("machines up", 'sum(up{job="tolvane"})'),
            ("scrape, s: mean", 'avg(avg_over_time(scrape_duration_seconds[2m]))'),
            ("scrape, s: longest", 'max(max_over_time(scrape_duration_seconds[2m]))')):
        print(f"{what:40} {query(expression)[0][1]:.3f}")
    print(f"{'series scraped per machine':40} {per_machine:.0f}")
    print(f"{'series recorded, all':40} {recorded:.0f}")
    print(f"{'series in memory':40} {own['prometheus_tsdb_head_series']:.0f}")
    appended = "prometheus_tsdb_head_samples_appended_total"
    appended = next(name for name in own if name.startswith(appended))
    print(f"{'samples a second':40} {(own[appended] - before.get(appended, 0)) / seconds:.0f}")
    for name, value in own.items():
        group = re.match(r'prometheus_rule_group_last_duration_seconds\{rule_group=".*;(.+)"\}', name)
        if group:
            print(f"{'evaluation, s: ' + group[1]:40} {value:.3f}")
    missed = sum(v for k, v in own.items() if k.startswith("prometheus_rule_group_iterations_missed"))
    print(f"{'evaluations missed':40} {missed:.0f}")
    cpu = own["process_cpu_seconds_total"] - before["process_cpu_seconds_total"]
    print(f"{'processor, s':40} {cpu:.1f} in {seconds:.0f} s")
    status = Path(f"/proc/{process.pid}/status").read_text()
    for what, field in (("memory, MB", "VmRSS"), ("memory at most, MB", "VmHWM")):
        kilobytes = int(re.search(rf"^{field}:\s+(\d+)", status, re.MULTILINE)[1])
        print(f"{what:40} {kilobytes / 1024:.0f}")
    print(f"{'machines in all':40} {hosts}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("page_server")
    parser.add_argument("--machines", type=int, default=200)
    parser.add_argument("--seconds", type=int, default=170)
    parser.add_argument("--no-rules", dest="rules", action="store_false",
                        help="only scrape; the difference is what the rules take")
    options = parser.parse_args()
    if not 0 < options.machines < 255:
        parser.error("1 to 254 machines")
    page_server = Path(options.page_server).resolve()
    private_machine.enter()
    text = real_page(page_server)
    Machines.take(text)
    write_configuration(options.machines, options.rules)
    write_history(text)
    server = Server(("0.0.0.0", PORT), Machines)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    with prometheus() as process:
        def ready():
            with contextlib.suppress(OSError):
                return read(PROMETHEUS, "/-/ready")
            return None

        private_machine.eventually(ready, "Prometheus", 60)
        before, began = own_metrics(), time.time()
        time.sleep(options.seconds)
        figures(process, options.machines, before, time.time() - began)


if __name__ == "__main__":
    main()
