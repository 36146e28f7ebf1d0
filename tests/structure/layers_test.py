#!/usr/bin/env python3
"""Includes point down: holds the table of allowed edges between folders against every source."""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A folder may include itself and the folders named here.
ALLOWED = {
    "platform": set(),
    "muro": {"platform"},
    "netbuf": {"muro"},
    "osx": {"muro", "netbuf", "platform"},
    "ipc": {"muro", "platform"},
    "front": {"osx", "ipc", "muro", "platform"},
    "client": set(),
    "tools": {"client", "front", "osx", "ipc", "muro", "netbuf", "platform"},
}
# The runtime's composition root is the one file of muro that knows netbuf.
EXCEPTIONS = {("muro/core/init.cpp", "netbuf")}
SUFFIXES = {".h", ".c", ".cpp", ".mm"}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
SYSTEM_SWITCH = re.compile(r"^\s*#.*\b(__APPLE__|__linux__|__MACH__|__gnu_linux__)\b", re.M)


def sources(folder):
    return [p for p in (ROOT / folder).rglob("*") if p.suffix in SUFFIXES]


def includes(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def runtime_graph():
    """File edges inside the runtime; a header and its source count as one unit."""
    graph = {}
    for folder in ("muro", "netbuf"):
        for path in sources(folder):
            unit = str(path.relative_to(ROOT).with_suffix(""))
            targets = {i.rsplit(".", 1)[0] for i in includes(path)}
            if path.suffix == ".h":
                graph.setdefault(unit, set()).update(targets - {unit})
    return graph


def find_cycle(graph):
    state = {}

    def visit(node, trail):
        if state.get(node) == "done":
            return None
        if node in trail:
            return trail[trail.index(node):] + [node]
        for target in sorted(graph.get(node, ())):
            cycle = visit(target, trail + [node])
            if cycle:
                return cycle
        state[node] = "done"
        return None

    for start in sorted(graph):
        cycle = visit(start, [])
        if cycle:
            return cycle
    return None


class Layers(unittest.TestCase):
    def test_includes_point_down(self):
        wrong = []
        for folder, allowed in ALLOWED.items():
            for path in sources(folder):
                name = str(path.relative_to(ROOT))
                for target in includes(path):
                    top = target.split("/")[0]
                    if top != folder and top not in allowed and (name, top) not in EXCEPTIONS:
                        wrong.append(f"{name} includes {target}")
        self.assertEqual(wrong, [])

    def test_quoted_includes_are_named_from_the_root(self):
        wrong = [f"{p.relative_to(ROOT)}: {t}" for folder in ALLOWED for p in sources(folder)
                 for t in includes(p) if not (ROOT / t).is_file()]
        self.assertEqual(wrong, [])

    def test_runtime_headers_are_free_of_cycles(self):
        self.assertIsNone(find_cycle(runtime_graph()))

    def test_a_cycle_would_be_seen(self):
        self.assertEqual(find_cycle({"a": {"b"}, "b": {"c"}, "c": {"b"}}), ["b", "c", "b"])

    def test_only_the_platform_knows_the_system(self):
        wrong = [str(p.relative_to(ROOT)) for folder in ALLOWED if folder != "platform"
                 for p in sources(folder) if SYSTEM_SWITCH.search(p.read_text(encoding="utf-8"))]
        self.assertEqual(wrong, [])

    def test_headers_are_guarded_once(self):
        wrong = [str(p.relative_to(ROOT)) for folder in ALLOWED for p in sources(folder)
                 if p.suffix == ".h" and not p.read_text(encoding="utf-8").startswith("#pragma once")]
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
