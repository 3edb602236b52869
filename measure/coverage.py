"""Branch coverage of the driver by its tests and the fuzzers' corpora, all on the fiber executor.

Prints a table by file and every branch that was not taken, and fails when one of these is not
explained in coverage_exceptions.txt, or when one that is explained there is taken or gone. An
exception is a line "FILE | ROUTINE | CONDITION | true or false | reason" and explains one branch.
Usage: coverage.py BUILD-DIRECTORY
"""

import collections
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DRIVER = ("driver", "lifecycle", "client", "pipes", "controller")
TESTS = ["--gtest_brief=1", "--gtest_filter=-Lives.*Threads"]


def run_all(build):
    """Returns the merged profile and the programs that made it."""
    programs = [[build / "tests/driver_tests", *TESTS]]
    for corpus in sorted((ROOT / "fuzz/corpus").iterdir()):
        fuzzer = build / f"fuzz/{corpus.name}_fuzzer"
        programs.append([fuzzer, "-runs=0", "-verbosity=0", corpus])
    raw = []
    for number, command in enumerate(programs):
        raw.append(build / f"coverage.{number}.profraw")
        subprocess.run(command, cwd=ROOT, check=True, stderr=subprocess.DEVNULL,
                       env={"LLVM_PROFILE_FILE": str(raw[-1]), "VORLIX_PREEMPTIONS": "1",
                            "VORLIX_EXPLORE": "workers=1"})
    profile = build / "coverage.profdata"
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", *raw, "-o", profile], check=True)
    return profile, [command[0] for command in programs]


def export(profile, programs):
    sources = [path for folder in DRIVER for path in sorted((ROOT / folder).iterdir())]
    objects = [argument for program in programs[1:] for argument in ("-object", program)]
    text = subprocess.run(["llvm-cov-14", "export", "-instr-profile", profile, programs[0],
                           *objects, *sources], check=True, capture_output=True, text=True).stdout
    return json.loads(text)["data"][0]


def condition(lines, region):
    """As the source has it, up to the end of a macro's arguments."""
    first, start, last, end = region
    text = "\n".join([lines[first - 1][start - 1:], *lines[first:last + 2]])
    length = end - start if first == last else (
        sum(len(line) + 1 for line in lines[first - 1:last - 1]) - start + end)
    while text[:length].count("(") > text[:length].count(")") or text[length:length + 1] == "(":
        length += 1
    return " ".join(text[:length].split())


def routine(lines, number):
    """The last name before a parenthesis in a line that begins at the left edge."""
    for line in reversed(lines[:number]):
        found = re.match(r"[A-Za-z].*?(\w+)\(", line)
        if found and not line.endswith(";"):
            return found.group(1)
    return ""


def branches(data):
    """{(file, line, column, routine, condition, outcome): count}"""
    found = collections.Counter()
    for entry in data["files"]:
        path = pathlib.Path(entry["filename"])
        lines = path.read_text().splitlines()
        for branch in entry["branches"]:
            where = (str(path.relative_to(ROOT)), branch[0], branch[1], routine(lines, branch[0]),
                     condition(lines, branch[:4]))
            for outcome, count in (("true", branch[4]), ("false", branch[5])):
                found[(*where, outcome)] += count
    return found


def read_exceptions():
    known = collections.defaultdict(list)
    for line in (ROOT / "measure/coverage_exceptions.txt").read_text().splitlines():
        if line.strip() and not line.startswith("#"):
            # A condition may hold bars itself.
            name, where, rest = (part.strip() for part in line.split(" | ", 2))
            text, outcome, reason = (part.strip() for part in rest.rsplit(" | ", 2))
            known[(name, where, text, outcome)].append(reason)
    return known


def print_table(found):
    print(f"{'file':40} branches   taken")
    files = sorted({key[0] for key in found})
    for name in [*files, None]:
        counts = [count for key, count in found.items() if name in (key[0], None)]
        taken = sum(count > 0 for count in counts)
        print(f"{name or 'all':40} {len(counts):8} {100 * taken / len(counts):6.1f}%")


def main():
    found = branches(export(*run_all(pathlib.Path(sys.argv[1]).resolve())))
    known = read_exceptions()
    amiss = 0
    print_table(found)
    for (name, line, column, *branch), count in sorted(found.items()):
        if count == 0:
            reasons = known.get((name, *branch))
            amiss += not reasons
            print(f"{name}:{line}:{column}:", " | ".join(branch), "|",
                  reasons.pop(0) if reasons else "NOT EXPLAINED")
    for key, reasons in sorted(known.items()):
        for reason in reasons:
            amiss += 1
            print("taken or gone, but explained:", " | ".join(key), "|", reason)
    sys.exit(1 if amiss else 0)


if __name__ == "__main__":
    main()
