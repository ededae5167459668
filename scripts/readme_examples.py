#!/usr/bin/env python3
"""Makes the picture of the page and the output of `tolvane show` for the README anew.

    scripts/readme_examples.py TOLVANE LIBRARY [MINUTES]

TOLVANE is the program, LIBRARY what it preloads. Measures an Apache in private namespaces,
sends it requests for some minutes (15 unless told), writes docs/page.png and the block in
README.md. Needs the Debian packages chromium, chromium-driver, python3-selenium, apache2-bin.
"""

import fcntl
import http.client
import itertools
import math
import os
import pty
import re
import struct
import subprocess
import sys
import termios
import threading
import time
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "tests/system/monitoring"))

import measured_machine as machine
from page_picture import PICTURE, WORDS, with_words


def send_traffic(ended):
    """Requests of a day in short: more and fewer, with some errors."""
    connection = None
    for number in itertools.count():
        now = time.monotonic()
        if ended.is_set():
            return
        if number % 200 == 0:
            connection = http.client.HTTPConnection("127.0.0.1", machine.SERVER_PORT, timeout=10)
        wave = 1 + 0.5 * math.sin(now / 60) + 0.2 * math.sin(now / 17)
        for site, path in (("shop.example", "/"), ("shop.example", "/cart/add"),
                           ("blog.example", "/post-1.html"), ("shop.example", "/")):
            if site == "blog.example" and number % 3:
                continue
            if path == "/" and number % 25 == 0:
                path = "/cart/missing" if now % 150 < 40 else "/old"
            connection.request("GET", path, headers={"Host": site})
            connection.getresponse().read()
        time.sleep(0.05 / wave)


def take_picture():
    options = webdriver.ChromeOptions()
    for flag in ("headless", "no-sandbox", "disable-quic", "disable-background-networking",
                 "disable-component-update", "disable-sync", "disable-dev-shm-usage"):
        options.add_argument("--" + flag)
    browser = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
    try:
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 1240, "height": 420, "deviceScaleFactor": 1, "mobile": False})
        browser.get(f"http://{machine.COLLECTOR}/")
        machine.eventually(lambda: browser.execute_script(
            "return document.querySelector('.spark .line[d]:not([d=\"\"])')"), "a line")
        time.sleep(12)  # the rates appear with the second reading
        words = browser.execute_script(WORDS)
        PICTURE.write_bytes(with_words(browser.get_screenshot_as_png(), words))
    finally:
        browser.quit()


def shown(tolvane):
    """What `show` prints on a terminal of 80 columns."""
    mine, its = pty.openpty()
    fcntl.ioctl(its, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 80, 0, 0))
    with subprocess.Popen([tolvane, "show"], stdout=its, env=os.environ | {"NO_COLOR": "1"}):
        os.close(its)
        output = b""
        try:
            while part := os.read(mine, 65536):
                output += part
        except OSError:
            pass  # the terminal's end
    return output.decode().replace("\r\n", "\n")


def main():
    machine.enter_sandbox()
    tolvane, library = (str(Path(path).resolve()) for path in sys.argv[1:3])
    minutes = float(sys.argv[3]) if len(sys.argv) > 3 else 15
    machine.HOME.mkdir()
    ended = threading.Event()
    traffic = threading.Thread(target=send_traffic, args=[ended])
    started = [machine.start_apache(tolvane, library), machine.start_collector(tolvane)]
    try:
        machine.eventually(lambda: "site=" in machine.read(machine.COLLECTOR, "/metrics")
                           if machine.answers(machine.COLLECTOR, "/health") else None,
                           "a configured server", 90)
        traffic.start()
        time.sleep(minutes * 60)
        block = "".join(f"    {line}\n" for line in shown(tolvane).splitlines())
        take_picture()
    finally:
        ended.set()
        for process in reversed(started):
            machine.stop(process)
    readme = ROOT / "README.md"
    text, replaced = re.subn(r"(`tolvane show`, 80 columns wide:\n\n)(?: {4}.*\n)+",
                             lambda match: match[1] + block, readme.read_text())
    if replaced != 1:
        sys.exit("README.md has no such block")
    readme.write_text(text)


if __name__ == "__main__":
    main()
