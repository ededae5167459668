"""What single calls, publications and parsing take: times, and instructions under callgrind."""

import os
import re
import subprocess
import tempfile
from pathlib import Path

import figures

ROOT = Path("/opt/server")


def measure(command, environment):
    """The times that a program of measured_rows prints, then its instructions."""
    options = {"env": {**os.environ, **environment}, "check": True, "text": True}
    times = subprocess.run(command, stdout=subprocess.PIPE, **options).stdout
    result = figures.read(times)
    with tempfile.TemporaryDirectory() as directory:
        messages = subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={directory}/dump", *command,
             "--instructions"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            **{**options, "check": False})
        if messages.returncode != 0:
            raise RuntimeError(messages.stderr)
        return result + instructions(result[0].section, Path(directory))


def instructions(section, directory):
    """A dump names what it counted, "row|side|turns", and its total."""
    result, ours = [], {}
    dumps = sorted(directory.glob("dump.*"), key=lambda path: int(path.suffix[1:]))
    for text in map(Path.read_text, dumps):
        counted = re.search(r"^desc: Trigger: Client Request: (.+)\|(.+)\|(.+)$", text, re.MULTILINE)
        if counted is None:
            continue
        row, side, turns = counted.groups()
        total = re.search(r"^summary: (\d+)", text, re.MULTILINE)
        count = int(total.group(1)) / float(turns)
        if side == "ours":
            ours[row] = count
        elif side == "baseline":
            result.append(figure(section, row, "instructions", ours[row] - count))
        else:
            if row in ours:
                result.append(figure(section, row, "instructions, shim", ours.pop(row)))
            result.append(figure(section, row, f"instructions, {side}", count))
    return result


def figure(section, row, unit, count):
    return figures.single(section, row, unit, ".1f" if count < 100 else ".0f", count)


def per_call(build):
    """What the library adds to each kind of call, and what publishing its counts costs."""
    for name in ("conf", "logs"):
        (ROOT / name).mkdir(parents=True, exist_ok=True)
    (ROOT / "conf/httpd.conf").write_text("Listen 8080\n")
    (ROOT / "logs/httpd.pid").write_text(f"{os.getpid()}\n")
    # So many calls between two publications that these do not show.
    environment = {"WEB_SERVER": "apache", "WEB_SERVER_ROOT": str(ROOT), "NUM_SEMAPHORES": "1",
                   "SSL_FACTOR": "start", "REQUEST_INTERVAL": "20000"}
    preload = f"{build}/lib/libtolvane.so {build}/lib/libempty_calls.so"
    result = []
    for group in ("none", "small", "fullest", "messages", "threads"):
        module = "worker" if group == "threads" else "prefork"
        (ROOT / "logs/.tolvane_info").write_text(f"{module}\n")
        counting = "messages" if group == "messages" else "calls"
        result += measure([f"{build}/bin/per_call", group],
                          {**environment, "LD_PRELOAD": preload, "TOLVANE_COUNTING": counting})
    for kind in ("type0", "75", "10000"):
        result += measure([f"{build}/bin/publication_cost", kind], environment)
    return result


def parsing(build):
    """How parsing and matching compare with llhttp, Hyperscan and RE2::Set."""
    return [figure for group in ("requests", "urls")
            for figure in measure([f"{build}/bin/parsing", group], {})]
