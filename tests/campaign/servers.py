"""The servers under test: how each is started with the library, found, stopped and looked over."""

import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

from segment import Segment, libc, objects

ROOT, AGENT, WORK = Path("/opt/server"), Path("/opt/tolvane/agent"), Path("/opt/campaign")
PORTS = (8080, 8081)
NEW_IPC, PR_SET_PDEATHSIG = 0x08000000, 1

# A fixed number of processes; of threads in each more than clients at a time.
THREADS = """StartServers 3\nServerLimit 6\nThreadsPerChild 25\nMinSpareThreads 75
MaxSpareThreads 150\nMaxRequestWorkers 75"""
PROCESSES = """StartServers 12\nMinSpareServers 12\nMaxSpareServers 13\nServerLimit 12
MaxRequestWorkers 12"""
APACHE = """ServerRoot {root}\nPidFile logs/httpd.pid\nErrorLog logs/error_log
Listen 127.0.0.1:{ports[0]}\nListen 127.0.0.1:{ports[1]}
{modules}\nUser www-data\nGroup www-data\n{numbers}
ServerName a.test\nTypesConfig /dev/null\nDocumentRoot {root}/htdocs\nScriptAlias /cgi/ {root}/cgi/
EnableSendfile On\nTimeout 10\nKeepAliveTimeout 15\nMaxKeepAliveRequests 0\nRequestReadTimeout header=10 body=10
CustomLog "|/usr/bin/tee -a logs/access_log" "%r %>s"
CustomLog "|$exec cat >>{root}/logs/second_log" "%r"
<VirtualHost *>\nServerName a.test\nRedirect 302 /moved http://a.test/small.html\n</VirtualHost>
<VirtualHost *>\nServerName b.test\nRedirect 503 /busy\nRedirect 500 /fail\n</VirtualHost>
"""
CGI = """#!/bin/sh
cat >/dev/null
printf 'Content-Type: text/plain\\n\\nhello\\n'
"""
RUNTIMES = {"plain": [], "asan": ["libasan.so.8", "libubsan.so.1"], "tsan": ["libtsan.so.2"]}
SANITIZER_OPTIONS = {
    "ASAN_OPTIONS": "log_path=/opt/campaign/reports/asan:detect_leaks=0:abort_on_error=1",
    "UBSAN_OPTIONS": "log_path=/opt/campaign/reports/ubsan:print_stacktrace=1:abort_on_error=1",
    "TSAN_OPTIONS": "log_path=/opt/campaign/reports/tsan:exitcode=0:die_after_fork=0:"
                    "report_signal_unsafe=0"}


def fresh_places():
    """Empty directories, and an IPC namespace of its own, for a round."""
    if libc.unshare(NEW_IPC) != 0:
        raise OSError("unshare")
    for directory in (ROOT, AGENT, WORK / "reports"):
        shutil.rmtree(directory, ignore_errors=True)
    for name in ("conf", "config", "logs", "htdocs", "cgi"):
        (ROOT / name).mkdir(parents=True)
    for name in ("config", "data", "logs"):
        (AGENT / name).mkdir(parents=True)
    (WORK / "reports").mkdir()
    for directory in (AGENT / "logs", WORK / "reports"):
        directory.chmod(0o1777)


def read(path):
    try:
        return Path(path).read_text(errors="replace")
    except OSError:
        return ""


def sockets():
    """Rows of the table of TCP sockets; columns: 1 address, 3 state, 9 inode."""
    return [line.split() for line in read("/proc/net/tcp").splitlines()[1:]]


def connections():
    """Connections to the server that are not over."""
    ports = tuple(f":{port:04X}" for port in PORTS)
    return sum(row[1].endswith(ports) and row[3] not in ("0A", "06") for row in sockets())


def leftovers():
    """What a stopped server must not leave behind."""
    left = [f"{kind} {identifier}" for kind in ("shm", "sem") for identifier in objects(kind)]
    return left + [str(path) for name in ("config", "data") for path in (AGENT / name).iterdir()]


def eventually(seconds, condition, step=0.05):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(step)
    return True


class Server:
    def __init__(self, kind, sanitizer, chance, faults):
        self.kind, self.sanitizer, self.process, self.segment = kind, sanitizer, None, None
        self.apache = kind in ("prefork", "worker", "event")
        self.request_interval = chance.choice((1, 5))
        self.cgi = "cgid" if chance.random() < (0.2 if kind == "prefork" else 0.5) else "cgi"
        self.netscape = not self.apache and chance.random() < 0.5
        self.type = 0 if kind == "prefork" else 1 if self.netscape else 3
        self.records = chance.choice((1, 3))
        # The thread sanitizer makes a plain fork of it, after which its runtime may hang.
        vforks = "vfork" in faults and sanitizer != "tsan"
        self.vfork_every = chance.choice((7, 40)) if vforks else 0
        self.forkers = 2 if "fork" in faults and self.netscape else 0
        # Signals that processes end with: those sent, and the CGI daemon's when the worker that
        # waits for its answer is gone.
        self.sent = {signal.SIGPIPE} if self.cgi == "cgid" and {"kill", "term"} & faults else set()

    def describe(self):
        layout = self.cgi if self.apache else "netscape" if self.netscape else "workers"
        return f"{self.kind} ({layout}, interval {self.request_interval})"

    # Where each send call publishes, a process keeps nothing back between requests.
    def keeps_counts(self):
        return self.type == 0 and self.request_interval > 1

    def threads(self):
        """Connections at once that bring some to every process."""
        if self.apache:
            return 12 if self.type == 0 else 75
        return 90 if self.netscape else 25 * len(self.measuring()) - 5

    def prepare(self):
        (ROOT / "logs/.tolvane_info").write_text((self.kind if self.apache else "worker") + "\n")
        (ROOT / "config/magnus.conf").write_text(f"Port {PORTS[0]}\n")
        (ROOT / "htdocs/small.html").write_text("s" * 100)
        (ROOT / "htdocs/large.bin").write_text("l" * 300000)
        (ROOT / "cgi/hello").write_text(CGI)
        (ROOT / "cgi/hello").chmod(0o755)
        modules = [f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so"
                   for name in ("mpm_" + self.kind, "authz_core", "alias", "dir", "mime", "reqtimeout",
                                self.cgi)]
        if self.cgi == "cgid":
            modules.append(f"ScriptSock {ROOT}/logs/cgisock")
        (ROOT / "conf/httpd.conf").write_text(APACHE.format(
            root=ROOT, ports=PORTS, modules="\n".join(modules),
            numbers=PROCESSES if self.type == 0 else THREADS) if self.apache else f"Listen {PORTS[0]}\n")

    def command(self, files):
        if self.apache:
            return ["/usr/sbin/apache2", "-f", f"{ROOT}/conf/httpd.conf", "-DFOREGROUND"]
        threads, processes = ("100", "0") if self.netscape else ("25", "4")
        return [f"{files}/threaded_server", str(PORTS[0]), threads, str(self.forkers), processes]

    def start(self):
        files = WORK / ("bin32" if self.kind == "threaded32" else "bin")
        preload = RUNTIMES[self.sanitizer] + [f"{files}/tolvane-{self.sanitizer}.so"]
        environment = {"PATH": "/usr/bin:/bin", "WEB_SERVER_ROOT": str(ROOT), **SANITIZER_OPTIONS,
                       "WEB_SERVER": "netscape" if self.netscape else "apache",
                       "NUM_SEMAPHORES": str(self.records),
                       "REQUEST_INTERVAL": str(self.request_interval)}
        if self.vfork_every:
            preload.append(f"{files}/libcampaign_vforking.so")
            environment["CAMPAIGN_VFORK_EVERY"] = str(self.vfork_every)
        environment["LD_PRELOAD"] = ":".join(preload)

        def enter_group():
            os.setpgid(0, 0)  # Apache signals its whole group when it stops
            libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        # The thread sanitizer wants memory where the kernel puts it without randomisation.
        command = (["setarch", "-R"] if self.sanitizer == "tsan" else []) + self.command(files)
        with open(ROOT / "logs/output", "ab") as output:
            self.process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=output, preexec_fn=enter_group)
        if not self.apache:
            (ROOT / "logs/httpd.pid").write_text(str(self.process.pid))
        pattern = re.compile(r"Shmid=(\d+)\n(?:.*\n)*Structures=(\d+)\n")
        handoff = AGENT / f"config/webadapter.{self.process.pid}"
        if not eventually(30, lambda: pattern.search(read(handoff)) and self.complete()):
            raise RuntimeError("the server did not start: " + read(ROOT / "logs/output")[-600:])
        self.segment = Segment(*map(int, pattern.search(read(handoff)).groups()))

    def children(self):
        return [int(pid) for task in Path(f"/proc/{self.process.pid}/task").glob("*/children")
                for pid in read(task).split()]

    def measuring(self):
        """Worker processes: children that run the server's program and have its sockets, which
        the CGI daemon has closed."""
        name = read(f"/proc/{self.process.pid}/comm")
        listeners = {f"socket:[{row[9]}]" for row in sockets() if row[3] == "0A"}

        def listens(pid):
            try:
                return any(os.readlink(entry.path) in listeners for entry in os.scandir(f"/proc/{pid}/fd"))
            except OSError:
                return False  # it has just ended, or one of its descriptors
        return [pid for pid in self.children() if read(f"/proc/{pid}/comm") == name and listens(pid)]

    def complete(self):
        expected = {"prefork": 12, "worker": 3, "event": 3}.get(self.kind, 0 if self.netscape else 1)
        return (self.process.poll() is None and any(row[3] == "0A" for row in sockets())
                and len(self.measuring()) >= expected)

    def replace_workers(self, graceful=False):
        """All at once; returns whether they have new ones for successors. Without `graceful` Apache
        sends no requests to itself to wake them."""
        before = set(self.measuring())
        if graceful:
            self.process.send_signal(signal.SIGUSR1)

        def replaced():
            left = before & set(self.measuring())
            for pid in left if not graceful else ():  # again: one that just starts does not heed it
                os.kill(pid, signal.SIGTERM)
            return not left and self.complete()
        return eventually(40, replaced, 0.3)

    def kill_one(self, chance, number):
        pids = self.children() if self.apache else self.measuring()[2:]  # those are not replaced
        if pids:
            self.sent.add(number)
            os.kill(chance.choice(pids), number)
        return bool(pids)

    def group(self):
        """Processes of the server, workers and what they started included."""
        stats = [read(path).rpartition(")") for path in Path("/proc").glob("[0-9]*/stat")]
        return [head for head, _, rest in stats
                if rest and rest.split()[0] != "Z" and int(rest.split()[2]) == self.process.pid]

    def kill_all(self):
        if self.process:
            try:
                os.killpg(self.process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.process.wait()
            eventually(10, lambda: not self.group())
        if self.segment:
            self.segment.detach()
            self.segment = None

    def stop(self):
        """Returns what is wrong with the way in which the server ends."""
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(25)
        except subprocess.TimeoutExpired:
            return "the server does not stop"
        if status != 0:
            return f"the server ended with status {status}"
        eventually(5, lambda: not self.group())
        return f"processes are left: {self.group()}" if self.group() else ""

    def crashes(self):
        """Sanitizer reports, and ends by signals that the campaign did not send."""
        reports = []
        for path in (WORK / "reports").iterdir():
            for block in read(path).split("==================\n"):
                lines = re.findall(".*(?:SUMMARY|runtime error|FATAL).*", block)
                # The thread sanitizer also reports calls of the server's own.
                if block and ("tsan" not in path.name or "tolvane-" in block):
                    reports.append(path.name + ": " + ("; ".join(lines) or block[:300]))
        ends = [line for line in read(ROOT / "logs/error_log").splitlines()
                if (end := re.search(r"exit signal [^(]*\((\d+)\)", line))
                and int(end.group(1)) not in self.sent]
        return reports + ends + re.findall(".*(?:forked child|Sanitizer|terminate called).*",
                                           read(ROOT / "logs/output"))
