"""Reads the Grafana dashboard as Grafana would: its panels, variables and queries."""

import json
import re

VARIABLE = re.compile(r"\$(?:\{(\w+)[^}]*\}|(\w+))")


class Dashboard:
    def __init__(self, path):
        self.json = json.loads(path.read_text())
        self.panels = self.json["panels"]
        self.variables = self.json["templating"]["list"]

    def targets(self):
        """Of every panel, with a name for messages."""
        for panel in self.panels:
            for target in panel.get("targets", []):
                yield f"{panel['title']} {target['refId']}", target


def substitute(text, values):
    return VARIABLE.sub(lambda match: values[match[1] or match[2]], text)


def as_regex(text):
    """A chosen value as Grafana writes it into a query that compares with =~."""
    return re.sub(r"[\\^$.*+?()\[\]{}|]", r"\\\\\g<0>", text)
