"""The files of monitoring/ by themselves, and with a real collector and Prometheus.

    monitoring_test.py TOLVANE LIBRARY

TOLVANE is the program, LIBRARY what it preloads into Apache. Ends with 77 where
Prometheus is not installed.
"""

import re
import shutil
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest
from pathlib import Path

import measured_machine as machine
from counting_client import SERVER, CountingClient
from dashboard import Dashboard, as_regex, substitute
from measured_machine import COLLECTOR, PROMETHEUS, SERVER_PORT, ask, eventually, query, read
from measured_machine import value

ROOT = Path(__file__).resolve().parents[3]
SHIPPED = ROOT / "monitoring"
MANUAL = ROOT / "docs/monitoring.md"
RULE_FILES = [SHIPPED / "tolvane.rules.yml", SHIPPED / "tolvane.alerts.yml"]
DASHBOARD = Dashboard(SHIPPED / "grafana-dashboard.json")
METRIC = re.compile(r"(?<![\w:$.])(?:tolvane|process)_[a-z_]*[a-z](?![\w:.*])")
RECORDED = re.compile(r"\b[a-z_]+:tolvane_[a-z_]+:[a-z0-9_]+")


class ShippedFiles(unittest.TestCase):
    def promtool(self, *arguments):
        done = subprocess.run(["promtool", *map(str, arguments)], capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def test_rules_are_valid(self):
        self.promtool("check", "rules", *RULE_FILES)

    def test_example_configuration_is_valid(self):
        self.promtool("check", "config", SHIPPED / "prometheus.example.yml")

    def test_configurations_of_the_manual_are_valid(self):
        blocks = re.findall(r"(?:^ {4}.*\n|^\n(?= ))+", MANUAL.read_text(), re.MULTILINE)
        configurations = [textwrap.dedent(block) for block in blocks
                          if re.match(r"\s*(scrape_configs|remote_write|storage):", block)]
        self.assertGreater(len(configurations), 3)
        for configuration in configurations:
            with self.subTest(configuration), tempfile.NamedTemporaryFile("w", suffix=".yml") as file:
                # The rule files need not be installed here, and Debian's Prometheus is built
                # without Consul.
                configuration = configuration.replace("/etc/prometheus/", f"{SHIPPED}/")
                configuration = re.sub(r"consul_sd_configs:\n.*\n.*", "file_sd_configs: []",
                                       configuration)
                file.write(configuration)
                file.flush()
                self.promtool("check", "config", file.name)

    def test_rules_and_alerts(self):
        self.promtool("test", "rules", *Path(__file__).parent.glob("*_test.yml"))


class WithPrometheus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        machine.HOME.mkdir()
        cls.run_process(machine.start_apache(*PROGRAMS))
        cls.run_process(machine.start_collector(PROGRAMS[0]))
        cls.run_process(machine.start_prometheus(SHIPPED))
        eventually(lambda: machine.answers(PROMETHEUS, "/-/ready"), "Prometheus")
        # A process takes its configuration just before its first request.
        eventually(lambda: query("tolvane_site_requests_total"), "a configured server")
        cls.client = CountingClient()
        cls.send_traffic(cls.client)
        try:
            eventually(lambda: not cls.miscounted(), "the totals of what was sent")
        except AssertionError:
            pass  # a test of its own shows them
        scraped = time.time()
        last_rule = "min(timestamp(site_category:tolvane_category_response_seconds:mean5m))"
        eventually(lambda: (value(last_rule) or 0) > scraped, "an evaluation after that")

    @classmethod
    def run_process(cls, process):
        cls.addClassCleanup(machine.stop, process)

    @classmethod
    def miscounted(cls):
        """By series, what Prometheus says and what the client sent."""
        totals = {series: value(series) for series in cls.client.counts}
        return {series: (totals[series], sent) for series, sent in cls.client.counts.items()
                if totals[series] != sent}

    @staticmethod
    def send_traffic(client):
        # Errors and drops of a category first: a request in progress at a collection
        # counts as answered until a later request is.
        client.send("shop.example", "/cart/missing", "cart", times=6)
        client.send("shop.example", "/cart/add", "cart", times=30)
        client.send("shop.example", "/", "pages", times=40)
        client.send("shop.example", "/old", times=10)
        client.send("shop.example", "/broken", times=2)
        client.send("blog.example", "/post-1.html", "posts", answered=False)
        client.send("blog.example", "/post-1.html", "posts", times=20)
        client.send("blog.example", "/", times=60)

    def test_metrics_keep_the_conventions(self):
        done = subprocess.run(["promtool", "check", "metrics"], input=read(COLLECTOR, "/metrics"),
                              capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_target_is_healthy(self):
        targets = ask("targets")["activeTargets"]
        self.assertEqual([(t["health"], t["lastError"]) for t in targets], [("up", "")])
        self.assertEqual(value('tolvane_collector_servers{state="live"}'), 1)
        self.assertEqual(value("tolvane_server_up"), 1)

    def test_totals_are_what_the_client_sent(self):
        self.assertEqual(self.miscounted(), {})
        for category, seconds in self.client.seconds.items():
            measured = value("tolvane_category_response_seconds_sum" + category)
            self.assertTrue(0 < measured <= seconds, f"{category}: {measured} of {seconds} s")

    def test_recording_rules_follow_the_traffic(self):
        for rule in self.rules("recording"):
            if "1d_" not in rule["name"]:  # what is usual needs hours
                self.assertTrue(query(rule["name"]), rule["name"])
        counts = self.client.counts
        of_shop = SERVER[:-1] + ',site="shop.example"}'
        requests = counts["tolvane_site_requests_total" + of_shop]
        errors = (counts["tolvane_site_client_errors_total" + of_shop]
                  + counts["tolvane_site_server_errors_total" + of_shop])
        share = value('site:tolvane_site_errors_per_requests:ratio_rate5m{site="shop.example"}')
        self.assertAlmostEqual(share, errors / requests)
        # Prometheus extrapolates a little beyond the first and the last scrape.
        counted = value('300 * site:tolvane_site_requests:rate5m{site="shop.example"}')
        self.assertTrue(requests <= counted < 1.6 * requests, f"{counted} for {requests}")
        cart = 'site="shop.example",category="cart"'
        mean = value(f"site_category:tolvane_category_response_seconds:mean5m{{{cart}}}")
        total = value(f"tolvane_category_response_seconds_sum{{{cart}}}")
        count = value(f"tolvane_category_response_seconds_count{{{cart}}}")
        self.assertAlmostEqual(mean, total / count)

    def test_no_alert_fires(self):
        shipped = RULE_FILES[1].read_text().count("- alert:")
        self.assertEqual(len(self.rules("alerting")), shipped)
        eventually(lambda: not ask("alerts")["alerts"], "no alert, not even a pending one")

    def rules(self, kind):
        rules = [rule for group in ask("rules")["groups"] for rule in group["rules"]]
        unwell = [rule for rule in rules if rule["health"] == "err"]
        self.assertEqual(unwell, [])
        return [rule for rule in rules if rule["type"] == kind]

    def test_panels_have_data(self):
        chosen = {"cluster": machine.CLUSTER, "instance": COLLECTOR, "server": f"127.0.0.1:{SERVER_PORT}",
                  "site": "shop.example", "category": "cart"}
        times = {"window": "5m", "__range": "5m"}
        everything = dict.fromkeys(chosen, ".*") | times
        one_of_each = {name: as_regex(text) for name, text in chosen.items()} | times
        for name, target in DASHBOARD.targets():
            for values in (everything, one_of_each):
                with self.subTest(name):
                    self.assertTrue(query(substitute(target["expr"], values)))
        for variable in DASHBOARD.variables:
            if variable["type"] == "query":
                series, label = re.fullmatch(r"label_values\((.+), (\w+)\)",
                                             variable["query"]["query"]).groups()
                found = ask(f"label/{label}/values", **{"match[]": substitute(series, everything)})
                self.assertIn(chosen[label], found)

    def test_every_name_exists(self):
        families = set(re.findall("^# TYPE ([^ ]+)", read(COLLECTOR, "/metrics"), re.MULTILINE))
        recorded = {rule["name"] for rule in self.rules("recording")}
        for path in [*SHIPPED.iterdir(), MANUAL]:
            text = path.read_text()
            named = {re.sub("_(sum|count)$", "", name) for name in METRIC.findall(text)}
            self.assertEqual(named - families, set(), path)
            self.assertEqual(set(RECORDED.findall(text)) - recorded, set(), path)
        self.assertEqual(families - set(METRIC.findall(MANUAL.read_text())), set(), "undocumented")


if __name__ == "__main__":
    if not shutil.which("prometheus") or not shutil.which("promtool"):
        print("skipped: Prometheus is not installed (Debian's package is called prometheus)")
        sys.exit(77)
    machine.enter_sandbox()
    PROGRAMS = sys.argv[1:3]
    outcome = unittest.main(argv=sys.argv[:1] + sys.argv[3:], verbosity=2, exit=False).result
    if not outcome.wasSuccessful():
        for log in [*machine.HOME.glob("*.out"), *machine.HOME.glob("*.log")]:
            print(f"---- {log.name}\n{log.read_text()}")
    sys.exit(not outcome.wasSuccessful())
