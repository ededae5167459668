"""The page in a real browser: page_test.py PAGE_SERVER."""

import shutil
import subprocess
import sys
import unittest
from pathlib import Path

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.wait import WebDriverWait
except ImportError:
    webdriver = None

sys.path.append(str(Path(__file__).resolve().parents[3] / "scripts"))

from page_picture import PICTURE, WORDS, words_in

NOTHING = "–"
HOSTILE = "<img src=x onerror=\"document.title='broken'\">"

# Every line of the tables as {column: text}, with the line's level.
ROWS = """
return [...document.querySelectorAll('tbody tr')].map((tr) => Object.fromEntries(
  [['level', tr.className], ...[...tr.cells].map((cell) => [
    cell.className.split(' ').at(-1),
    (cell.querySelector('span') ?? cell).textContent])]));
"""

# Of everything with text of its own, the lowest contrast with what lies behind.
CONTRAST = """
const numbers = (colour) => colour.match(/[0-9.]+/g).map(Number);
const light = ([r, g, b]) => [r, g, b].map((c) => c / 255)
  .map((c) => c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
  .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
const behind = (element) => {
  const colour = numbers(getComputedStyle(element).backgroundColor);
  return colour[3] === 0 && element.parentElement ? behind(element.parentElement) : colour;
};
const ratios = [...document.body.querySelectorAll('*')]
  .filter((e) => e.checkVisibility() && [...e.childNodes].some(
    (node) => node.nodeType === Node.TEXT_NODE && node.textContent.trim()))
  .map((e) => {
    const pair = [light(numbers(getComputedStyle(e).color)), light(behind(e))].sort((a, b) => b - a);
    return [(pair[0] + 0.05) / (pair[1] + 0.05), e.className || e.tagName];
  });
return ratios.sort((a, b) => a[0] - b[0])[0];
"""


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        options = webdriver.ChromeOptions()
        for flag in ("headless", "no-sandbox", "disable-quic", "disable-background-networking",
                     "disable-component-update", "disable-sync", "disable-dev-shm-usage"):
            options.add_argument("--" + flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver"))
        cls.addClassCleanup(cls.browser.quit)

    def run_script(self, body, *arguments):
        return self.browser.execute_script(body, *arguments)

    def wait(self, *script):
        WebDriverWait(self.browser, 15).until(lambda _: self.run_script(*script), script)

    def complaints(self):
        """What the page has written to the browser's console since the last call."""
        return [entry["message"] for entry in self.browser.get_log("browser")]

    def resize(self, width):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 800, "deviceScaleFactor": 1, "mobile": width < 600})

    def serve(self, scenario, width=1500):
        self.server = subprocess.Popen([program, scenario], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.stop)
        # Runs before the above: a page complains when its server stops.
        self.addCleanup(self.browser.get, "about:blank")
        self.complaints()  # those of the page before are not this one's
        self.resize(width)
        self.browser.get(f"http://127.0.0.1:{self.server.stdout.readline().strip()}/")
        self.wait("return document.querySelector('.spark .line[d]:not([d=\"\"])')"
                  if scenario != "empty" else "return !none.hidden")

    def stop(self):
        if not self.server.stdin.closed:
            self.server.stdin.close()
        self.server.wait(20)
        self.server.stdout.close()

    def say(self, *lines):
        self.server.stdin.write("".join(line + "\n" for line in lines))
        self.server.stdin.flush()

    def rows(self):
        return {row["name"]: row for row in self.run_script(ROWS)}

    def names(self):
        return list(self.rows())

    def await_notice(self, part):
        self.wait("return notices.textContent.includes(arguments[0])", part)

    def test_shows_every_count(self):
        self.serve("shop")
        rows = self.rows()
        self.assertEqual(rows["shop.example"] | {"rate": "", "sent_rate": ""}, {
            "level": "site", "name": "shop.example", "rate": "", "sent_rate": "",
            "errors": rows["shop.example"]["errors"], "mean": rows["shop.example"]["mean"],
            "requests": "1,234,567", "share": "1.0 %", "response": "16.0 ms", "client": "9,876",
            "server": "2,469", "redirects": "61,728", "dropped": "1,234",
            "connections": "411,522", "sent": "6.3 GB", "received": "506 MB"})
        self.assertRegex(rows["shop.example"]["errors"], r"^0\.[1-9] %$")
        self.assertRegex(rows["shop.example"]["mean"], r"^\d\d\.\d ms$")
        cart = rows["cart"]
        self.assertEqual((cart["level"], cart["requests"], cart["client"], cart["response"]),
                         ("category", "823,044", "", "16.0 ms"))
        idle = rows[HOSTILE]
        self.assertEqual((idle["requests"], idle["errors"], idle["mean"]),
                         ("987", NOTHING, NOTHING))
        self.assertEqual(rows["All traffic"]["requests"], "1,300,000")

    def test_names_are_only_text(self):
        self.serve("shop")
        self.assertIn(HOSTILE, self.names())
        self.assertIn('"quoted\\" ?', self.names())
        self.assertEqual(self.run_script("return [document.title, document.images.length]"),
                         ["Tolvane", 0])
        self.assertEqual(self.complaints(), [])

    def test_follows_the_counts(self):
        self.serve("shop")
        self.say("take 50")
        self.wait("return document.body.textContent.includes('1,234,617')")
        rows = self.rows()
        self.assertEqual(rows["cart"]["requests"], "823,094")
        self.assertEqual([rows[name]["rate"] for name in ("All traffic", "cart", "search")],
                         ["50.0", "50.0", "0"])

    def test_fits_every_width(self):
        for scenario in ("shop", "many", "states", "empty"):
            self.serve(scenario)
            columns = self.run_script("return document.querySelectorAll('thead button').length")
            for width in (320, 360, 560, 820, 1060, 1240, 1480):
                self.resize(width)
                for column in range(max(min(columns, 16), 1)):
                    wide = self.run_script(
                        "document.querySelectorAll('thead button')[arguments[0]]?.click();"
                        "return document.documentElement.scrollWidth", column)
                    self.assertLessEqual(wide, width, f"{scenario}, sorted by column {column}")
            self.stop()

    def test_a_phone_shows_rates_and_lines(self):
        self.serve("shop", 360)
        self.assertEqual(
            self.run_script("return [...document.querySelectorAll('thead tr:last-child th')]"
                             ".filter((th) => th.checkVisibility()).map((th) => th.textContent)"),
            ["Site / category", "Req/s", "Errors", "Response"])
        self.assertEqual(self.run_script(
            "return document.querySelector('.site small').innerText"), "1.2M req, 6.3 GB")

    def test_draws_the_last_minutes(self):
        self.serve("shop")
        lines = self.run_script("""
            return Object.fromEntries([...document.querySelectorAll('tbody tr')].map((tr) => [
              tr.querySelector('th span').textContent, [...tr.querySelectorAll('svg')].map((svg) => [
                svg.getAttribute('aria-label'), svg.querySelector('.line').getBBox().height,
                svg.querySelector('.line').getAttribute('d').split(/[ML]/).length - 1])]))""")
        for name in ("All traffic", "shop.example", "cart"):
            requests, errors, mean = lines[name]
            self.assertRegex(requests[0], r"^Requests in the last 15 minutes: [\d,]+, at most \d")
            self.assertRegex(errors[0], r"^Errors in the last 15 minutes: [\d,]+ of [\d,]+ requests")
            self.assertRegex(mean[0], r"^Mean response time in the last 15 minutes: [\d.]+ ms")
            for label, height, _ in lines[name]:
                self.assertGreater(height, 1, f"{name}: {label}")
            self.assertEqual((requests[2], mean[2]), (29, 29))
        self.assertEqual(lines[HOSTILE][0][0], "Nothing in the last 15 minutes")

    def test_sorts_with_the_keyboard(self):
        self.serve("shop")
        sites = ["shop.example", "blog.example", HOSTILE]
        self.assertEqual([name for name in self.names() if name in sites], sites)
        self.browser.find_element(By.CSS_SELECTOR, "th.requests button").send_keys(Keys.ENTER)
        self.assertEqual(
            self.run_script("return document.querySelector('th.requests').ariaSort"), "ascending")
        self.assertEqual(self.names(), ["All traffic", HOSTILE, '"quoted\\" ?', "blog.example",
                                        "posts", "shop.example", "search", "catalogue", "cart"])

    def test_filters(self):
        self.serve("shop")
        self.run_script("filter.value = 'CAT'; filter.dispatchEvent(new Event('input'))")
        self.assertEqual(self.names(), ["All traffic", "shop.example", "catalogue"])
        self.run_script("categories.click()")
        self.assertEqual(self.names(), ["All traffic", "shop.example"])

    def test_shows_the_state_of_each_server(self):
        self.serve("states")
        self.assertEqual(
            self.run_script("return [...document.querySelectorAll('summary')].map((summary) => "
                             "summary.innerText.replace(/\\s*\\n\\s*/g, ' | '))"),
            ["*:8080 | live", "*:8081 | ending | the server has stopped; 2 processes remain",
             "*:8082 | stale | no process of it runs", "*:8083 | held | held by collector 4711",
             "*:8084 | unreadable | its segment 65538 is smaller than 16 records need",
             "*:8085 | live | 3 processes attached, nothing published yet | – requests/s",
             "127.0.0.1:8090 | stopped | not running; the totals are kept"])
        self.assertEqual(len(self.rows()), 3)
        self.run_script("document.querySelectorAll('summary')[3].click()")
        self.wait("return document.querySelectorAll('details')[3].querySelector('tbody .line[d]')")

    def test_shows_problems(self):
        self.serve("shop")
        self.say("silence", "unwritten", "invalid")
        self.await_notice("has not collected counts since")
        self.await_notice("cannot be written to disk")
        self.await_notice("/etc/tolvane/sites.toml is not valid")
        self.stop()
        self.await_notice("has not answered since")
        self.assertIn("shop.example", self.names())

    def test_looks_as_in_the_readme(self):
        self.assertLess(PICTURE.stat().st_size, 150000)
        self.serve("shop", 1240)
        self.assertEqual(self.run_script(WORDS), words_in(PICTURE),
                         "scripts/readme_examples.py takes the picture anew")

    def test_text_has_contrast(self):
        for scenario in ("shop", "states"):
            self.serve(scenario)
            self.say("invalid")
            self.await_notice("not valid")
            for scheme in ("light", "dark"):
                self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                    "features": [{"name": "prefers-color-scheme", "value": scheme}]})
                ratio, where = self.run_script(CONTRAST)
                self.assertGreaterEqual(ratio, 4.5, f"{where} when {scheme}")
            self.stop()


if __name__ == "__main__":
    if not webdriver or not shutil.which("chromium") or not shutil.which("chromedriver"):
        print("Skipped: not all of Debian's python3-selenium, chromium, chromium-driver are there")
        sys.exit(77)
    program = sys.argv.pop(1)
    unittest.main(verbosity=2)
