"""Every place of the model that stops a run, or warns, has been seen to do so by a test of the
model."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = pathlib.Path(os.environ.get("VORLIX_BUILD", ROOT / "build" / "debug"))

# Places that no small driver can be led to, by their texts, with the reason.
EXEMPT = {
    # The machine has run out of something.
    'the machine has no thread for "%s"',
}
if BUILD.name == "debug":
    # AddressSanitizer comes first, or has frames of its own; the release build is asked for them.
    EXEMPT |= {
        "drivers use %zu bytes of stack in one chain of calls; %zu are for them",
        "written to %s the block: %s",
        "byte %llu was written after the block was freed at %s: %s",
    }

# Where the text stands among the arguments of what stops.
STOPS = {"VerifierStop": 2, "VerifierWarn": 0, "KeBugCheckModel": 0, "Stop": 3}


def arguments(text, at):
    """The arguments of the call whose parenthesis opens at the offset."""
    parts, start, depth, i = [], at + 1, 0, at
    while True:
        character = text[i]
        if character == '"':
            i = re.compile(r'"(?:[^"\\]|\\.)*"').match(text, i).end()
            continue
        depth += (character in "([{") - (character in ")]}")
        if depth == 0 or (depth == 1 and character == ","):
            parts.append(text[start:i].strip())
            start = i + 1
        if depth == 0:
            return parts
        i += 1


def literal(code):
    """The text of adjoining literals; None for anything else."""
    if re.sub(r'"(?:[^"\\]|\\.)*"', "", code).strip():
        return None
    joined = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', code))
    return joined.replace('\\"', '"').replace("\\n", "\n")


def places():
    """Of each place its rule, if it stands there, its text, who stops, and where it is."""
    for path in sorted((ROOT / "platform" / "model").glob("*.cpp")):
        text = re.sub(r"//[^\n]*", lambda c: " " * len(c.group()), path.read_text())
        for call in re.finditer(rf"\b({'|'.join(STOPS)})\(", text):
            who, given = call.group(1), arguments(text, call.end() - 1)
            which = STOPS[who]
            said = literal(given[which]) if len(given) > which else None
            if said is not None and said != "%s":
                rule = literal(given[0]) if which > 0 else None
                line = text.count("\n", 0, call.start()) + 1
                yield rule, said, who, f"{path.relative_to(ROOT)}:{line}"


class Stops(unittest.TestCase):
    def test_every_place_was_seen(self):
        with tempfile.TemporaryDirectory() as folder:
            record = pathlib.Path(folder) / "stops"
            subprocess.run([BUILD / "tests" / "model_tests", "--gtest_brief=1",
                            "--gtest_filter=-Reduction.*:Exploring.*"], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                           env=dict(os.environ, VORLIX_STOPS=str(record)))
            seen = {tuple(line.split("\t", 2)) for line in record.read_text().splitlines()
                    if line.count("\t") >= 2}

        def was_seen(rule, said, who):
            first = said.split("\n")[0]
            return any((rule is None or rule == stopped) and
                       (first in (form, text) or (who == "Stop" and first in text))
                       for stopped, form, text in seen)

        never = [f"{where}: {said}" for rule, said, who, where in places()
                 if said not in EXEMPT and not was_seen(rule, said, who)]
        self.assertEqual(never, [], "\n" + "\n".join(never))

    def test_one_text_a_place(self):
        known = {}
        for rule, said, who, where in places():
            if who != "VerifierWarn":
                known.setdefault((rule, said) if who == "Stop" else said, []).append(where)
        self.assertEqual({}, {said: at for said, at in known.items() if len(at) > 1})


if __name__ == "__main__":
    unittest.main()
