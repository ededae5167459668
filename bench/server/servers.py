"""The servers that are compared: where their files are, how they start, and the load on them."""

import json
import resource
import shlex
import subprocess
from pathlib import Path

import private_machine
from private_machine import Server, eventually
from server import configurations

HOME = Path("/opt/bench")
RELEASE, BENCH = Path("build/release").resolve(), Path("build/bench/bin").resolve()
TOLVANE, LIBRARY = RELEASE / "bin/tolvane", RELEASE / "lib/libtolvane.so"
REQUESTS = HOME / "requests"
FIRST_PORT = 8001
SERVER_CORE, CLIENT_CORE = ["taskset", "-c", "0"], ["taskset", "-c", "1"]

VARIANTS = ("bare", "bare again", "shim small", "shim unmatched", "shim matched", "mod_status",
            "access log")
# Debian's default but for compression.
MODULES = ("access_compat", "alias", "auth_basic", "authn_core", "authn_file", "authz_core",
           "authz_host", "authz_user", "autoindex", "dir", "env", "filter", "mime", "negotiation",
           "reqtimeout", "setenvif")
# Processes enough that none has to be started or ended.
PROCESSES = "StartServers 16\nMinSpareServers 1\nMaxSpareServers 24\n"
THREADS = "StartServers 2\nThreadsPerChild 25\nMinSpareThreads 25\nMaxSpareThreads 75\n"
OF_VARIANT = {
    "mod_status": """LoadModule status_module /usr/lib/apache2/modules/mod_status.so
ExtendedStatus On
<Location /server-status>
SetHandler server-status
Require local
</Location>
""",
    "access log": r"""LogFormat "%h %l %u %t \"%r\" %>s %b \"%{Referer}i\" \"%{User-agent}i\" %D" timed
CustomLog access.log timed
""",
}
APACHE = f"""ServerName localhost
PidFile apache2.pid
ErrorLog error.log
User www-data
Group www-data
MaxRequestWorkers 150
KeepAlive On
MaxKeepAliveRequests 100
KeepAliveTimeout 30
HostnameLookups Off
TypesConfig /etc/mime.types
<Directory />
  AllowOverride None
  Require all denied
</Directory>
<Directory {HOME}/documents>
  Options FollowSymLinks
  AllowOverride None
  Require all granted
</Directory>
"""
HOSTS = f"""Listen 127.0.0.1:PORT
<VirtualHost *:PORT>
  ServerName www.shop.example
  ServerAlias shop.example
  DocumentRoot {HOME}/documents/shop
  Redirect /cart /shop/coats/wool-coat-4711.html
</VirtualHost>
<VirtualHost *:PORT>
  ServerName static.shop.example
  DocumentRoot {HOME}/documents/shop
</VirtualHost>
<VirtualHost *:PORT>
  ServerName blog.example
  DocumentRoot {HOME}/documents/blog
</VirtualHost>
"""


def write_files():
    for name, size in configurations.DOCUMENTS.items():
        path = HOME / "documents" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("x" * size)
    REQUESTS.write_text(configurations.REQUESTS)
    (HOME / "small.toml").write_text(configurations.SMALL)
    (HOME / "unmatched.toml").write_text(configurations.fullest(matched=False))
    (HOME / "matched.toml").write_text(configurations.fullest(matched=True))


def configuration_of(variant):
    return variant.removeprefix("shim ") if variant.startswith("shim ") else None


class MeasuredServer(Server):
    """One that listens, and has its configuration if the library is in it.

    It gets that before any connection, so that threaded processes have it from the start.
    """

    def __init__(self, command, port, configuration, output):
        self.port, self.configuration = port, configuration
        with open(output, "wb") as file:
            super().__init__(command, file)
        eventually(lambda: private_machine.listens(port), f"{command} listens")
        if configuration:
            eventually(self.has_segment, "a shared memory segment")
            tolvane("configure", HOME / f"{configuration}.toml", "--server", self.pid)

    def wait_for_counts(self, requests):
        """Until so many are published; at once if the library is not in it."""
        def counted():
            report, = json.loads(tolvane("show", "--json", "--server", self.pid))
            return report["total"]["requests"] >= requests
        if self.configuration:
            eventually(counted, f"{requests} published requests")


def tolvane(*arguments):
    return subprocess.run([str(TOLVANE), *map(str, arguments)], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def apache_directory(module, variant, port, https=""):
    """`https`: the directives of servers whose hosts use it."""
    directory = HOME / f"{module} {variant} {port}".replace(" ", "-")
    directory.mkdir(exist_ok=True)
    load = "".join(f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so\n"
                   for name in (f"mpm_{module}", *MODULES))
    hosts = HOSTS.replace("<VirtualHost *:PORT>", "<VirtualHost *:PORT>\n  SSLEngine on") if https else HOSTS
    (directory / "apache2.conf").write_text(
        f"ServerRoot {directory}\n" + load + (PROCESSES if module == "prefork" else THREADS) +
        OF_VARIANT.get(variant, "") + APACHE + https + hosts.replace("PORT", str(port)))
    return directory


def start_apache(module, variant, port, https=""):
    directory = apache_directory(module, variant, port, https)
    configuration = configuration_of(variant)
    run = [TOLVANE, "run", "--"] if configuration else []
    command = [*SERVER_CORE, *run, "/usr/sbin/apache2", "-d", directory, "-f", "apache2.conf",
               "-D", "FOREGROUND"]
    return MeasuredServer(command, port, configuration, directory / "output")


def start_counted_apache(module, variant, port):
    """One process under callgrind, which writes its count into the directory's file `output`."""
    directory, configuration = apache_directory(module, variant, port), configuration_of(variant)
    environment = []
    if configuration:
        prepared = tolvane("prepare", "-d", directory, "-f", "apache2.conf", "--",
                           "/usr/sbin/apache2")
        environment = [line for line in prepared.splitlines() if not line.startswith("#")]
        environment.append(f"LD_PRELOAD={LIBRARY}")
    command = ["env", *environment, "valgrind", "--tool=callgrind", "--vgdb=no",
               "--callgrind-out-file=/dev/null", "/usr/sbin/apache2", "-d", directory,
               "-f", "apache2.conf", "-X"]
    return MeasuredServer(command, port, configuration, directory / "output"), directory


def start_many_connections_server(measured, port):
    """As few threads as there are cores suffice: what is asked is what one of many costs.

    To the library it is an Apache with threads, whose root is laid out by hand.
    """
    directory = HOME / f"connections-{port}"
    for name in ("conf", "logs"):
        (directory / name).mkdir(parents=True, exist_ok=True)
    (directory / "conf/httpd.conf").write_text(f"Listen {port}\n")
    (directory / "logs/.tolvane_info").write_text("worker\n")
    environment = [f"LD_PRELOAD={LIBRARY}", "WEB_SERVER=apache", f"WEB_SERVER_ROOT={directory}"]
    # Its pid file is written before it becomes the server, which reads it at its start.
    start = f"echo $$ >{directory}/logs/httpd.pid; exec " + shlex.join(
        [*SERVER_CORE, "env", *(environment if measured else []),
         str(BENCH / "many_connections_server"), str(port), "4"])
    return MeasuredServer(["sh", "-c", start], port, "matched" if measured else None,
                          directory / "output")


def load(servers, *options):
    """The rows of all servers, which have their turns in random order; `servers` by variant."""
    arguments = [f"server={variant}:{server.port}:{server.pid}"
                 for variant, server in servers.items()]
    return subprocess.run(
        [*CLIENT_CORE, str(BENCH / "interleaved_load"), f"requests={REQUESTS}", *options, *arguments],
        check=True, text=True, stdout=subprocess.PIPE).stdout


def rows(output, start=0):
    """Rows (measure, variant, round, value); the rounds of different starts stay apart."""
    for line in output.splitlines():
        measure, variant, turn, value = line.split("\t")
        yield measure, variant, (start, turn), float(value)


def most_connections(wanted):
    """As many as one client can have to two servers."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    soft = 32768 if most == resource.RLIM_INFINITY else min(32768, most)
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, most))
    return min(wanted, (soft - 200) // 2)
