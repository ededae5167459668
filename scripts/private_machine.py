"""A machine of its own for a program that starts measured servers.

The caller has made private mount, IPC and network namespaces (`unshare --mount --ipc --net`).
What is put below /opt, and every shared memory segment, disappears with its last process.
"""

import ctypes
import fcntl
import os
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

AGENT = Path("/opt/tolvane/agent")


def enter():
    """Puts an empty /opt with the agent's directories in place, and a loopback interface."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(b"tmpfs", b"/opt", b"tmpfs", 0, b"mode=0755") != 0:
        raise OSError(ctypes.get_errno(), "mounting a tmpfs on /opt")
    for name in ("config", "data", "logs"):
        (AGENT / name).mkdir(parents=True)
    (AGENT / "logs").chmod(0o1777)
    interface_up, set_interface_flags = 0x1, 0x8914
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, set_interface_flags, struct.pack("16sH14x", b"lo", interface_up))


def eventually(condition, what, seconds=20):
    """Waits until `condition` gives something true, and returns that."""
    end = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > end:
            raise RuntimeError(f"not within {seconds} s: {what}")
        time.sleep(0.05)
    return result


def listens(port):
    """Whether a process listens on the port. A connection would make a server start its work."""
    return f":{port:04X} 00000000:0000 0A" in Path("/proc/net/tcp").read_text()


class Server:
    """A started server, which `with` stops."""

    def __init__(self, command, output=None, **options):
        # A session of its own: a stopping Apache signals its whole process group.
        self.process = subprocess.Popen(
            [str(part) for part in command], stdin=subprocess.DEVNULL, stdout=output,
            stderr=subprocess.STDOUT if output else None, start_new_session=True, **options)
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def has_segment(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the server ended with status {self.process.returncode}")
        handoff = AGENT / f"config/webadapter.{self.pid}"
        return handoff.exists() and "Shmid=" in handoff.read_text()

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            os.killpg(self.pid, signal.SIGKILL)
            self.process.wait()
