"""Rules of the repository: who may include whom, where the platform may be asked for, what every
source looks like."""

import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
DRIVER = ("driver", "lifecycle", "client", "pipes", "controller")
PLATFORM_ASKS = ("platform", "host", "zkctl")
SOURCES = DRIVER + ("platform", "host", "zkctl", "tests", "bench", "fuzz")


def sources(folders, endings=(".h", ".cpp")):
    for folder in folders:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in endings:
                yield path


def includes(path):
    return re.findall(r'^#include "([^"]+)"', path.read_text(), re.M)


def name(path):
    return str(path.relative_to(ROOT))


class Includes(unittest.TestCase):
    def graph(self):
        return {name(path): includes(path) for path in sources(SOURCES)}

    def test_every_include_exists(self):
        for path, targets in self.graph().items():
            for target in targets:
                self.assertTrue((ROOT / target).is_file(), f"{path} includes {target}")

    def test_no_circles(self):
        graph = self.graph()
        done, path = set(), []

        def visit(node):
            if node in done:
                return
            self.assertNotIn(node, path, " -> ".join(path + [node]))
            path.append(node)
            for target in graph.get(node, ()):
                visit(target)
            path.pop()
            done.add(node)

        for node in graph:
            visit(node)

    def test_driver_sees_the_kernel_through_the_boundary_only(self):
        graph = self.graph()
        for path in sources(DRIVER):
            for target in graph[name(path)]:
                allowed = target == "platform/kernel.h" or target.split("/")[0] in DRIVER
                self.assertTrue(allowed, f"{name(path)} includes {target}")
        reached, todo = set(), [name(path) for path in sources(DRIVER)]
        while todo:
            node = todo.pop()
            if node not in reached:
                reached.add(node)
                todo += graph.get(node, [])
        for node in reached:
            self.assertFalse(node.startswith("platform/model/"), f"the driver reaches {node}")

    def test_record_headers_stand_alone(self):
        for header in ("pipes/pipe.h", "pipes/proxy_read.h", "pipes/call_down.h",
                       "client/serializer.h"):
            allowed = {"platform/kernel.h", "controller/frame_format.h"}
            self.assertLessEqual(set(includes(ROOT / header)), allowed, header)


class Sources(unittest.TestCase):
    def test_the_platform_is_asked_for_in_its_places_only(self):
        asks = re.compile(r"^\s*#\s*(if|ifdef|ifndef|elif)\b.*", re.M)
        for path in sources(SOURCES):
            if path.relative_to(ROOT).parts[0] in PLATFORM_ASKS:
                continue
            found = asks.search(path.read_text())
            self.assertIsNone(found, f"{name(path)}: {found and found.group(0)}")

    def test_headers_are_guarded_and_say_what_they_are(self):
        for path in sources(SOURCES, (".h",)):
            text = path.read_text()
            self.assertIn("#pragma once", text, name(path))
            self.assertTrue(text.startswith("//"), f"{name(path)} has no purpose block")

    def test_format(self):
        paths = [name(path) for path in sources(SOURCES)]
        result = subprocess.run(["clang-format-14", "--dry-run", "--Werror", *paths], cwd=ROOT,
                                capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result.stderr[:3000])

    def test_driver_has_no_classes_and_no_hooks(self):
        banned = re.compile(r"\b(class|virtual|template|throw|dynamic_cast|typeid|new|delete)\b")
        for path in sources(DRIVER):
            for line in path.read_text().splitlines():
                code = re.sub(r'L?"(\\.|[^"\\])*"', '""', line.split("//")[0])
                self.assertIsNone(banned.search(code), f"{name(path)}: {line}")

    def test_tests_are_a_quarter_to_a_third(self):
        def count(folders):
            return sum(1 for path in sources(folders, (".h", ".cpp", ".py", ".sh"))
                       for line in path.read_text().splitlines() if line.strip())
        tests = count(("tests",))
        everything = count(SOURCES + ("windows", "measure"))
        share = 100 * tests / everything
        self.assertTrue(24 <= share <= 35, f"tests are {share:.0f}% of {everything} lines")


if __name__ == "__main__":
    unittest.main()
