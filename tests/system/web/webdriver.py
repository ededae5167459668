"""A headless Chromium, driven through chromedriver's WebDriver protocol."""

import json
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage",
]


def missing():
    """What is not installed of what is needed; empty when all is there."""
    return [name for name in ("chromium", "chromedriver") if shutil.which(name) is None]


class Browser:
    def __init__(self):
        self.profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        self.driver = subprocess.Popen(
            ["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            text=True)
        try:
            self.base = f"http://127.0.0.1:{self._port()}"
            flags = FLAGS + [f"--user-data-dir={self.profile.name}"]
            capabilities = {"browserName": "chrome", "goog:chromeOptions": {"args": flags},
                            "goog:loggingPrefs": {"browser": "ALL"}}
            session = self._send("POST", "/session",
                                 {"capabilities": {"alwaysMatch": capabilities}})
            self.base += f"/session/{session['sessionId']}"
        except BaseException:
            self._end_driver()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        try:
            self._send("DELETE", "")
        finally:
            self._end_driver()

    def _end_driver(self):
        self.driver.terminate()
        self.driver.wait(20)
        self.driver.stdout.close()
        self.profile.cleanup()

    def _port(self):
        for line in self.driver.stdout:
            found = re.search(r"started successfully on port (\d+)", line)
            if found:
                return found.group(1)
        raise RuntimeError("chromedriver does not start")

    def _send(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def open(self, url):
        self._send("POST", "/url", {"url": url})

    def run(self, script, *arguments):
        """What the body of a function returns in the page."""
        return self._send("POST", "/execute/sync", {"script": script, "args": arguments})

    def devtools(self, command, **parameters):
        self._send("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    def resize(self, width, height):
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height,
                      deviceScaleFactor=1, mobile=width < 600)

    def prefer(self, scheme):
        self.devtools("Emulation.setEmulatedMedia",
                      features=[{"name": "prefers-color-scheme", "value": scheme}])

    def press(self, key):
        actions = [{"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]
        self._send("POST", "/actions",
                   {"actions": [{"type": "key", "id": "keys", "actions": actions}]})

    def complaints(self):
        """What the page wrote to the browser's console."""
        return [entry["message"] for entry in self._send("POST", "/se/log", {"type": "browser"})]

    def wait(self, script, *arguments, seconds=15):
        """Until the script returns something true, which is returned."""
        end = time.monotonic() + seconds
        while True:
            result = self.run(script, *arguments)
            if result or time.monotonic() > end:
                return result
            time.sleep(0.1)
