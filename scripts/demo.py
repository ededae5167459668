#!/usr/bin/env python3
"""Measures an Apache with two sites, and compares the counts with those of its clients.

demo.sh starts it in private namespaces.
"""

import contextlib
import json
import signal
import subprocess
import sys
import time
from pathlib import Path

import private_machine
from private_machine import Server, eventually

BUILD = Path(__file__).resolve().parent.parent / "build/release/bin"
TOLVANE = BUILD / "tolvane"
HTTPS_CLIENT = Path(__file__).with_name("https_traffic.py")
HOME = Path("/opt/demo")
PORT = 18080
CLIENTS = 12
SECONDS = 8

APACHE = f"""
ServerRoot {HOME}
ServerName localhost
PidFile {HOME}/apache2.pid
ErrorLog {HOME}/error.log
User www-data
Group www-data
TypesConfig /dev/null
<IfModule mpm_prefork_module>
  StartServers 12
  MinSpareServers 12
  MaxSpareServers 12
  MaxRequestWorkers 12
</IfModule>
<IfModule !mpm_prefork_module>
  StartServers 2
  ThreadsPerChild 25
  MinSpareThreads 25
  MaxSpareThreads 50
  MaxRequestWorkers 50
</IfModule>
KeepAlive On
MaxKeepAliveRequests 0
KeepAliveTimeout 5
EnableSendfile On
IncludeOptional sites-enabled/*.conf
"""
TLS = f"""
SSLEngine on
SSLCertificateFile {HOME}/pair.pem
"""
MODULES = ("authz_core", "alias", "dir", "mime")

VIRTUAL_HOSTS = f"""
Listen 127.0.0.1:{PORT}
<VirtualHost *:{PORT}>
  ServerName shop.example
  ServerAlias www.shop.example
  DocumentRoot {HOME}/htdocs/shop
  Redirect /old /index.html
</VirtualHost>
<VirtualHost *:{PORT}>
  ServerName blog.example
  ServerAlias elsewhere.example
  DocumentRoot {HOME}/htdocs/blog
</VirtualHost>
"""

SITES = """
interval = 1

[[site]]
name = "shop.example"
hosts = ["www.shop.example"]

  [[site.category]]
  label = "pages"
  urls = ["/", "/index*"]

  [[site.category]]
  label = "cart"
  urls = ["/cart*", "/shop*.html"]

  [[site.category]]
  label = "images"
  urls = ["*.jpg"]

[[site]]
name = "blog.example"

  [[site.category]]
  label = "posts"
  urls = ["/post-*.html"]
"""

# What the client prints per site and category, with the names that `tolvane show` gives.
COLUMNS = {"requests": "REQUESTS", "client_errors": "4XX", "redirects": "3XX",
           "connections": "CONNECTIONS", "sent_bytes": "BYTES TO CLIENT",
           "received_bytes": "BYTES TO SERVER"}


def say(text):
    print(f"\n== {text}", flush=True)


def tolvane(*arguments, **options):
    return subprocess.run([TOLVANE, *map(str, arguments)], check=True, **options)


def write(name, content):
    path = HOME / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(content)


def make_certificate():
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=shop.example",
         "-keyout", HOME / "key.pem", "-out", HOME / "pair.pem"], check=True, capture_output=True)
    with (HOME / "pair.pem").open("a") as pair:
        pair.write((HOME / "key.pem").read_text())


def write_files(module, https):
    # The files are where Debian has them, not where the library looks for them by default.
    load = [f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n"
            for name in (f"mpm_{module}", *MODULES, *(["ssl"] if https else []))]
    write("apache2.conf", "".join(load) + APACHE)
    hosts, sites = VIRTUAL_HOSTS, SITES
    if https:
        make_certificate()
        hosts = hosts.replace("  ServerName", TLS + "  ServerName")
        sites = sites.replace('.example"', '.example:443"')
    write("sites-enabled/sites.conf", hosts)
    write("sites.toml", sites)
    for page in ("shop/index", "shop/shop-1", "blog/index", "blog/post-1", "blog/post-2"):
        write(f"htdocs/{page}.html", f"<h1>{page}</h1>\n")
    write("htdocs/shop/cart/add", "in the cart\n")
    write("htdocs/shop/photo.jpg", "\0" * 300000)


@contextlib.contextmanager
def measured_apache():
    command = ["run", "--request-interval", "1", "--", "apache2", "-d", HOME, "-f", "apache2.conf",
               "-D", "FOREGROUND"]
    say("tolvane " + " ".join(map(str, command)))
    with Server([TOLVANE, *command]) as server:
        try:
            eventually(server.has_segment, "a shared memory segment")
            eventually(lambda: private_machine.listens(PORT), "Apache listens")
        except RuntimeError as error:
            log = HOME / "error.log"
            sys.exit(f"Apache did not start, {error}:\n{log.read_text() if log.exists() else ''}")
        yield server


def number(text):
    return None if text == "-" else int(text)


def send_traffic(server, https):
    """Shows the live counts meanwhile. Returns what the client counted, by site and category."""
    say(f"tolvane top, while a client sends requests for {SECONDS} seconds")
    client = [sys.executable, "-B", HTTPS_CLIENT] if https else [BUILD / "tolvane-demo-traffic"]
    command = [*client, str(PORT), str(CLIENTS), str(SECONDS)]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as client:
        try:
            tolvane("top", "--server", server.pid, "--delay", 2, "--count", 5)
            output, _ = client.communicate()
        finally:
            client.kill()
    if client.returncode != 0:
        sys.exit("the client failed")
    # Threaded servers publish once per interval of a second.
    time.sleep(3)
    rows = (line.split("|") for line in output.splitlines())
    return {name: dict(zip(COLUMNS, map(number, counts))) for name, *counts in rows}


def shown_counts(server):
    report, = json.loads(tolvane("show", "--json", "--server", server.pid,
                                 stdout=subprocess.PIPE).stdout)
    rows = {"all traffic": report["total"]}
    for site in report["sites"]:
        rows[site["name"]] = site
        for category in site["categories"]:
            # A category counts errors of both kinds; the demo's server makes only 4xx.
            rows[category["label"]] = {**category, "client_errors": category["errors"]}
    return rows


def compare(client, shown):
    """Prints both side by side, and returns whether they are equal."""
    table = [["", "", *COLUMNS.values()]]
    equal = True
    for name, counts in shown.items():
        pairs = [(counts.get(key), client[name][key]) for key in COLUMNS]
        same = all(None in pair or pair[0] == pair[1] for pair in pairs)
        equal = equal and same
        cells = ["-" if None in (mine, theirs) else f"{theirs} / {mine}" for mine, theirs in pairs]
        table.append([name, "equal" if same else "DIFFERS", *cells])
    widths = [max(map(len, column)) for column in zip(*table)]
    for name, *cells in table:
        print(name.ljust(widths[0]),
              *(cell.rjust(width) for cell, width in zip(cells, widths[1:])), sep="  ")
    for name in client.keys() - shown.keys() - {"elsewhere.example"}:
        print(f"{name}: not in the table")
        equal = False
    return equal


def main():
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    private_machine.enter()
    module, https = sys.argv[1], "--https" in sys.argv
    write_files(module, https)
    with measured_apache() as server:
        say("tolvane configure sites.toml")
        tolvane("configure", HOME / "sites.toml", "--server", server.pid)
        say("tolvane list")
        tolvane("list")
        client = send_traffic(server, https)
        say("tolvane show")
        tolvane("show", "--server", server.pid)
        say("Counts of the client / of tolvane")
        equal = compare(client, shown_counts(server))
        say("Stopping the server, which leaves nothing behind")
    subprocess.run([TOLVANE, "list"], check=False)
    return 0 if equal else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
