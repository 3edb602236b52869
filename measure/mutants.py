"""Changes one thing at a time in the driver and says which changes no test notices.

Of all changes that mutations.py knows, N are drawn by SEED. Each is compiled from a copy of the
driver's sources, linked and tested as ./test quick tests the driver, quick tests first, up to the
first that fails. The build is the release one, which takes a fraction of the sanitized one's time.
What survives is given to clang's lock analysis, to real threads under ThreadSanitizer and to the
sanitized build without explorations. A change that makes no difference stands in equivalent.txt
with the reason; it is not tried, and an entry that fits nothing any more is an error.
Usage: mutants.py N SEED [WHERE], the last only from changes whose description holds that text.
"""

import collections
import concurrent.futures
import difflib
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

import mutations

ROOT = pathlib.Path(__file__).resolve().parent.parent
DRIVER = ("driver", "lifecycle", "client", "pipes", "controller")
PLACE = ROOT / "build/mutants"
COPY = PLACE / "source"
WORKERS = 2
# As the tests' own list says.
TESTS = "-Lives.*Threads:WholeLife.*EverySwitchPoint:*PartyTable*"
PAGED = "-*Races.*:Lives.*Threads:WholeLife.*:Forced.*:*PartyTable*"
THREADS = "Lives.*Threads"
SANITIZED = "-*Races.*:Lives.*Threads:WholeLife.*:*StayFlat*:*PartyTable*"
STAGES = (0.03, 0.3, 1e9)  # seconds that a test takes in the clean driver
NOT_COMPILED, SAME, CAUGHT, HUNG, ANALYSIS, RACED, SURVIVED = (
    "does not compile", "same code", "caught", "hung", "caught by the lock analysis",
    "caught on real threads", "survived")


class Refused(Exception):
    pass


# ---- Mutants that make no difference ----

def read_equivalent(text):
    """{key: reason}: paragraphs of place, line, change and reason."""
    known = {}
    for part in re.split(r"\n\s*\n", text):
        lines = [line.strip() for line in part.splitlines() if not line.startswith("#")]
        if lines:
            if len(lines) != 4:
                raise Refused(f"an entry has place, line, change and reason: {lines}")
            known[tuple(lines[:3])] = lines[3]
    return known


def key(mutant):
    return (f"{mutant.file} {mutant.routine}".strip(), mutant.source, mutant.change)


def without_equivalent(mutants, known):
    """The keys of those that are known; refuses an entry that is none of the mutants."""
    gone = set(known) - {key(mutant) for mutant in mutants}
    if gone:
        raise Refused("\n\n".join(["no such change any more:", *map("\n".join, sorted(gone))]))
    return set(known)


# ---- Building ----

def run(command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Build:
    """A preset's tree of its own: the tests of the driver as it is, and how to build others."""

    def __init__(self, preset):
        self.tree = PLACE / preset
        run(["cmake", "--preset", preset, "-B", self.tree], cwd=ROOT)
        run(["cmake", "--build", self.tree, "--target", "driver_tests"])
        commands = run(["ninja", "-C", self.tree, "-t", "commands", "tests/driver_tests"])
        words = shlex.split(commands.splitlines()[-1])
        self.linking = words[words.index("&&") + 1:words.index("&&", words.index("&&") + 1)]
        entries = json.loads((self.tree / "compile_commands.json").read_text())
        words = next(shlex.split(entry["command"]) for entry in entries
                     if entry["file"] == str(ROOT / "driver/entry.cpp"))
        self.compiler = next(word for word in words if "++" in word and not word.startswith("-"))
        self.flags = [word for word in words if word.startswith("-") and not word.startswith("-W")
                      and word not in ("-c", "-o", "-g", f"-I{ROOT}")]

    def compile(self, place, file, *more):
        """A source that stands in the place, or else in the copy; returns the object, or None."""
        source = place / file if (place / file).exists() else COPY / file
        target = place / (file.replace("/", ".") + ".o")
        done = subprocess.run([self.compiler, *self.flags, *(more or ["-w"]), f"-I{place}",
                               f"-I{COPY}", "-c", source, "-o", target], capture_output=True)
        return target if done.returncode == 0 else None

    def link(self, place, objects):
        """With the objects in the place of the driver's own; returns the program."""
        words = list(self.linking)
        words[words.index("-o") + 1] = str(place / "driver_tests")
        first = next(i for i, word in enumerate(words) if word.endswith(".o"))
        run([*words[:first], "-s", *objects, *words[first:]], cwd=self.tree)
        return place / "driver_tests"


class Clean:
    """The driver as it is, and the times of its tests."""

    def __init__(self):
        for folder in (*DRIVER, "platform"):
            shutil.rmtree(COPY / folder, ignore_errors=True)
            shutil.copytree(ROOT / folder, COPY / folder)
        self.texts = {str(path.relative_to(COPY)): path.read_text()
                      for folder in DRIVER for path in sorted((COPY / folder).iterdir())}
        self.release, self.tsan, self.debug = Build("release"), Build("tsan"), Build("debug")

    def dependents(self, header):
        """The sources that include it, over others or not."""
        reached, todo = set(), [header]
        while todo:
            name = todo.pop()
            if name not in reached:
                reached.add(name)
                todo += [file for file, text in self.texts.items() if f'#include "{name}"' in text]
        return sorted(file for file in reached if file.endswith(".cpp"))

    def measure(self):
        """Runs all tests and sorts them into stages; refuses a driver that does not pass."""
        report = PLACE / "clean.json"
        program = self.release.tree / "tests/driver_tests"
        if play(program, TESTS, 600, f"--gtest_output=json:{report}") != 0:
            raise Refused("the driver as it is does not pass its tests")
        times = {f"{suite['name']}.{test['name']}": float(test["time"].rstrip("s"))
                 for suite in json.loads(report.read_text())["testsuites"]
                 for test in suite["testsuite"]}
        self.stages, before = [], 0
        for limit in STAGES:
            names = [name for name in sorted(times, key=times.get) if before <= times[name] < limit]
            if names:
                self.stages.append((":".join(names), {}, sum(times[name] for name in names)))
            before = limit
        forced, began = {"VORLIX_FORCE": "paged"}, time.monotonic()
        for tests, variables, build in ((PAGED, forced, self.release), (THREADS, {}, self.tsan)):
            if play(build.tree / "tests/driver_tests", tests, 600, **variables) != 0:
                raise Refused(f"the driver as it is does not pass {tests} {variables}")
        self.stages.append((PAGED, forced, time.monotonic() - began))


def play(program, tests, limit, *more, **variables):
    """Runs tests up to the first that fails; the exit code, or None when they took too long."""
    process = subprocess.Popen(
        [program, "--gtest_brief=1", "--gtest_fail_fast", f"--gtest_filter={tests}", *more],
        env={"PATH": os.environ["PATH"], "VORLIX_PREEMPTIONS": "1", "VORLIX_TURNS": "100",
             "VORLIX_SECONDS": "10", **variables},
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        return process.wait(limit)
    except subprocess.TimeoutExpired:
        return None
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)  # with its children
        except ProcessLookupError:
            pass
        process.wait()


# ---- Trying one ----

def attempt(clean, mutant, place):
    """Returns what became of the mutant, tried in a directory of its own."""
    shutil.rmtree(place, ignore_errors=True)
    (place / mutant.file).parent.mkdir(parents=True)
    files = [mutant.file] if mutant.file.endswith(".cpp") else clean.dependents(mutant.file)

    def objects(build, text, *more):
        (place / mutant.file).write_text(text)
        return [build.compile(place, file, *more) for file in files]

    before = clean.texts[mutant.file]
    code = [path.read_bytes() for path in objects(clean.release, before)]
    after = mutations.mutated(before, mutant)
    changed = objects(clean.release, after)
    if None in changed:
        return NOT_COMPILED
    if code == [path.read_bytes() for path in changed]:
        return SAME
    program = clean.release.link(place, changed)
    for tests, variables, usual in clean.stages:
        code = play(program, tests, 15 + 6 * usual, **variables)
        if code != 0:
            return HUNG if code is None else CAUGHT
    if None in objects(clean.tsan, after, "-Wthread-safety", "-Wthread-safety-beta", "-Werror"):
        return ANALYSIS
    program = clean.tsan.link(place, objects(clean.tsan, after))
    if play(program, THREADS, 60) != 0:
        return RACED
    program = clean.debug.link(place, objects(clean.debug, after))
    return SURVIVED if play(program, SANITIZED, 300) == 0 else CAUGHT


def show(clean, mutant):
    text = clean.texts[mutant.file]
    after = mutations.mutated(text, mutant)
    difference = list(difflib.unified_diff(text.splitlines(), after.splitlines(), n=1, lineterm=""))
    return "\n".join([f"{mutant.file}:{mutant.line}: survived", *difference[2:], *key(mutant), ""])


def main(count, seed, where=""):
    clean = Clean()
    mutants = mutations.all_mutants(clean.texts)
    known = without_equivalent(
        mutants, read_equivalent((ROOT / "measure/equivalent.txt").read_text()))
    clean.measure()
    drawn = mutations.draw([m for m in mutants if where in " | ".join(key(m))], int(count), seed)
    print(f"{len(mutants)} mutants, {len(drawn)} drawn by {seed}", flush=True)
    places = [PLACE / f"worker{n}" for n in range(WORKERS)]
    results, lock = collections.Counter(), threading.Lock()

    def one(mutant):
        if key(mutant) in known:
            result = "equivalent"
        else:
            with lock:
                place = places.pop()
            began = time.monotonic()
            result = attempt(clean, mutant, place)
            with lock:
                places.append(place)
                print(f"{time.monotonic() - began:5.1f} s  {result}: {mutant.file}:{mutant.line}: "
                      f"{mutant.change}", flush=True)
        results[result] += 1
        return result

    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        outcome = list(pool.map(one, drawn))
    for mutant, result in zip(drawn, outcome):
        if result == SURVIVED:
            print("\n" + show(clean, mutant))
    caught = results[CAUGHT] + results[HUNG] + results[ANALYSIS] + results[RACED]
    judged = caught + results[SURVIVED]
    print(", ".join(f"{result}: {number}" for result, number in sorted(results.items())))
    share = 100 * caught / max(judged, 1)
    print(f"mutants: caught {caught} of {judged} that differ, {share:.1f} %, N {count} SEED {seed}")
    return 0 if judged and share >= 95 else 1


if __name__ == "__main__":
    try:
        sys.exit(main(*sys.argv[1:]))
    except Refused as refusal:
        sys.exit(f"mutants: {refusal}")
