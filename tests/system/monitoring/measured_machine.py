"""A machine of its own with a measured Apache, a collector and a Prometheus."""

import ctypes
import fcntl
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
import urllib.parse
import urllib.request
from pathlib import Path

HOME = Path("/opt/test")
SERVER_PORT = 8080
COLLECTOR = "127.0.0.1:9931"
PROMETHEUS = "127.0.0.1:9090"
CLUSTER = "north"

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
  urls = ["/cart*"]
[[site]]
name = "blog.example"
  [[site.category]]
  label = "posts"
  urls = ["/post*"]
"""

APACHE = f"""
ServerName localhost
Listen 127.0.0.1:{SERVER_PORT}
PidFile {HOME}/server.pid
ErrorLog {HOME}/error.log
DocumentRoot {HOME}/htdocs
StartServers 1
MinSpareThreads 1
ThreadsPerChild 25
MaxRequestWorkers 25
DirectoryIndex index.html
Redirect /old /index.html
Redirect 503 /broken
"""
MODULES = ("mpm_event", "authz_core", "alias", "dir")


def enter_sandbox():
    """Starts this program again where /opt, System V IPC and the network are private."""
    if "--sandboxed" not in sys.argv:
        spaces = ["unshare", "--mount", "--ipc", "--net"]
        if os.geteuid() != 0:
            spaces += ["--user", "--map-current-user", "--keep-caps"]
        os.execvp(spaces[0], spaces + [sys.executable, *sys.argv, "--sandboxed"])
    sys.argv.remove("--sandboxed")
    if ctypes.CDLL(None, use_errno=True).mount(b"tmpfs", b"/opt", b"tmpfs", 0, b"mode=0755"):
        raise OSError(ctypes.get_errno(), "mounting a tmpfs on /opt")
    up, set_flags = 0x1, 0x8914
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, set_flags, struct.pack("16sH14x", b"lo", up))


def eventually(condition, what, seconds=20):
    """What `condition` gives once that is true."""
    end = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.1)
    return result


def start(name, command):
    # A session of its own: a stopping Apache signals its whole process group.
    with open(HOME / f"{name}.out", "wb") as output:
        return subprocess.Popen(command, stdout=output, stderr=output, start_new_session=True)


def stop(process):
    process.send_signal(signal.SIGTERM)
    try:
        process.wait(20)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def start_apache(tolvane, library):
    (HOME / "htdocs/cart").mkdir(parents=True)
    for page in ("index.html", "post-1.html", "cart/add"):
        (HOME / "htdocs" / page).write_text(page * 100)
    conf = APACHE + "".join(
        f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n" for name in MODULES)
    if os.geteuid() == 0:
        conf += "User www-data\nGroup www-data\n"
    (HOME / "apache.conf").write_text(conf)
    return start("apache", [tolvane, "run", "--library", library, "--", "/usr/sbin/apache2",
                            "-d", HOME, "-f", "apache.conf", "-D", "FOREGROUND"])


def start_collector(tolvane):
    (HOME / "sites.toml").write_text(SITES)
    return start("collector", [tolvane, "serve", "--config", HOME / "sites.toml",
                               "--listen", COLLECTOR, "--interval", "1"])


def start_prometheus(shipped):
    """With the shipped example configuration, but for its intervals."""
    directory = HOME / "prometheus"
    shutil.copytree(shipped, directory)
    example = (directory / "prometheus.example.yml").read_text()
    (directory / "test.yml").write_text(re.sub(r"(_interval:) \w+", r"\1 1s", example))
    (directory / "tolvane").mkdir()
    (directory / "tolvane/machines.yml").write_text(
        json.dumps([{"targets": [COLLECTOR], "labels": {"cluster": CLUSTER}}]))
    return start("prometheus", [shutil.which("prometheus"), f"--config.file={directory}/test.yml",
                                f"--storage.tsdb.path={HOME}/tsdb",
                                f"--web.listen-address={PROMETHEUS}"])


def read(address, path):
    with urllib.request.urlopen(f"http://{address}{path}", timeout=10) as answer:
        return answer.read().decode()


def answers(address, path):
    try:
        return bool(read(address, path))
    except OSError:
        return False


def ask(path, **parameters):
    """The data that Prometheus' API gives; a query that it refuses raises."""
    answer = read(PROMETHEUS, f"/api/v1/{path}?{urllib.parse.urlencode(parameters)}")
    return json.loads(answer)["data"]


def query(expression):
    return ask("query", query=expression)["result"]


def value(expression):
    """Of the one series that the expression gives; None when there is none."""
    result = query(expression)
    if len(result) > 1:
        raise AssertionError(f"{len(result)} series, one expected: {expression}")
    return float(result[0]["value"][1]) if result else None
