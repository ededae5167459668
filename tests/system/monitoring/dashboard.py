"""Reads the Grafana dashboard as Grafana would: its panels, variables and queries."""

import itertools
import json
import re

VARIABLE = re.compile(r"\$(?:\{(\w+)[^}]*\}|(\w+))")
BUILT_IN = {"__all", "__range", "__interval", "__rate_interval"}


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

    def faults(self):
        """What Grafana would stumble over or show wrong."""
        names = {variable["name"] for variable in self.variables}
        for variable in (a or b for a, b in VARIABLE.findall(json.dumps(self.json))):
            if variable not in names | BUILT_IN:
                yield f"${variable} is no variable"
        ids = [panel["id"] for panel in self.panels]
        if len(set(ids)) < len(ids):
            yield "panels share an id"
        for one, other in itertools.combinations(self.panels, 2):
            if overlap(one["gridPos"], other["gridPos"]):
                yield f"{one['title']} overlaps {other['title']}"
        for panel in self.panels:
            place = panel["gridPos"]
            if place["x"] < 0 or place["x"] + place["w"] > 24:
                yield f"{panel['title']} leaves the grid"
            targets = panel.get("targets", [])
            if not targets and panel["type"] != "row":
                yield f"{panel['title']} has no query"
            if len({target["refId"] for target in targets}) < len(targets):
                yield f"{panel['title']} uses a refId twice"
        for name, target in self.targets():
            if target["datasource"] != {"type": "prometheus", "uid": "${datasource}"}:
                yield f"{name} has a datasource of its own"
            if not target["expr"].strip():
                yield f"{name} has no expr"


def overlap(a, b):
    return (a["x"] < b["x"] + b["w"] and b["x"] < a["x"] + a["w"]
            and a["y"] < b["y"] + b["h"] and b["y"] < a["y"] + a["h"])


def substitute(text, values):
    return VARIABLE.sub(lambda match: values[match[1] or match[2]], text)


def as_regex(text):
    """A chosen value as Grafana writes it into a query that compares with =~."""
    return re.sub(r"[\\^$.*+?()\[\]{}|]", r"\\\\\g<0>", text)
