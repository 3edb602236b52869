"""The documentation holds: its commands run, its links lead somewhere, its rules are the model's.

A ```sh block under the comment <!-- checked --> is run from the root, with VORLIX_BUILD naming the
build that ./run uses and TTY a tty whose far end sends back what it gets. A ```text block under
<!-- prints --> that follows is what it prints, with … for what may differ."""

import contextlib
import os
import pathlib
import re
import select
import signal
import subprocess
import tempfile
import threading
import tty
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[1]
DOCUMENTS = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
SECONDS = 60

CHECKED = re.compile(r"^<!-- checked -->\n+```sh\n(.*?)^```$"
                     r"(?:\n+<!-- prints -->\n+```text\n(.*?)^```$)?", re.MULTILINE | re.DOTALL)
FENCED = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\]\(([^)\s]+)\)")
SCHEME = re.compile(r"[a-z]+:")
RULE = r"[a-z]+(?:-[a-z]+)*(?:\.[a-z]+(?:-[a-z]+)*)?"
RULE_CALL = re.compile(rf'Verifier(?:Stop|Warn)\(\s*"({RULE})"')
RULE_LITERAL = re.compile(r'"([a-z-]+\.[a-z-]+)"')  # rules that a call gets through a parameter
RULES_SECTION = re.compile(r"^## Rules of the verifier$(.*?)(?=^## |\Z)", re.MULTILINE | re.DOTALL)

UNPROVEN = {"model.no-thread"}  # no driver brings it about: the machine has run out of threads


def rules_of_the_model():
    """The names that the model's sources can stop or warn with."""
    used = set()
    for source in (ROOT / "platform/model").glob("*.cpp"):
        text = source.read_text()
        used |= {*RULE_CALL.findall(text), *RULE_LITERAL.findall(text)}
    return used


@contextlib.contextmanager
def echoing_tty():
    """The path of a tty whose device sends back what it gets."""
    device, port = os.openpty()
    tty.setraw(port)
    os.set_blocking(device, False)
    stop_out, stop_in = os.pipe()

    def echo():
        while stop_out not in select.select([device, stop_out], [], [])[0]:
            with contextlib.suppress(BlockingIOError):  # nobody takes it: lost, as on a wire
                os.write(device, os.read(device, 4096))

    echoer = threading.Thread(target=echo)
    echoer.start()
    try:
        yield os.ttyname(port)
    finally:
        os.close(stop_in)
        echoer.join()
        for fd in (stop_out, device, port):
            os.close(fd)


def run_block(text):
    """Runs a block in a session of its own, of which nothing is left. Its result, or None if it
    took too long, and what it printed."""
    with echoing_tty() as path, tempfile.TemporaryDirectory(prefix="vorlix-") as directory:
        settings = {"TTY": path, "XDG_RUNTIME_DIR": directory, "TMPDIR": directory,
                    "VORLIX_BUILD": "build/release"}
        output = pathlib.Path(directory, "output")
        with output.open("wb") as sink:
            shell = subprocess.Popen(
                ["bash", "-euo", "pipefail", "-c", text], cwd=ROOT, env={**os.environ, **settings},
                stdin=subprocess.DEVNULL, stdout=sink, stderr=subprocess.STDOUT,
                start_new_session=True)
        try:
            status = shell.wait(SECONDS)
        except subprocess.TimeoutExpired:
            status = None
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(shell.pid, signal.SIGKILL)
            shell.wait()
        return status, output.read_text(errors="replace")


class Documents(unittest.TestCase):
    def test_checked_blocks_run(self):
        found = 0
        for document in DOCUMENTS:
            for block, prints in CHECKED.findall(document.read_text()):
                found += 1
                with self.subTest(document=document.name, block=block.splitlines()[0]):
                    status, output = run_block(block)
                    self.assertEqual(status, 0, f"\n{block}\n{output}")
                    expected = ".*".join(map(re.escape, prints.split("…")))
                    self.assertTrue(not prints or re.fullmatch(expected, output),
                                    f"\n{block}\nprints\n{output}")
        self.assertTrue(found, "no block is marked as checked")

    def test_every_mark_stands_before_a_block(self):
        for document in DOCUMENTS:
            text = document.read_text()
            found = CHECKED.findall(text)
            self.assertEqual(text.count("<!-- checked -->"), len(found), document.name)
            self.assertEqual(text.count("<!-- prints -->"), sum(bool(p) for _, p in found),
                             document.name)

    def test_links_lead_to_files(self):
        for document in DOCUMENTS:
            for target in LINK.findall(FENCED.sub("", document.read_text())):
                path = target.partition("#")[0]
                if path and not SCHEME.match(target):
                    self.assertTrue((document.parent / path).exists(),
                                    f"{document.name}: {target}")

    def test_every_rule_has_a_bad_driver(self):
        tests = "".join(path.read_text() for path in (ROOT / "tests").rglob("*.cpp"))
        named = set(re.findall(r'"([a-z.-]+)"', tests))
        self.assertEqual(rules_of_the_model() - named - UNPROVEN, set(), "no test names the rule")

    def test_documented_rules_are_the_verifiers(self):
        section = RULES_SECTION.search((ROOT / "docs/kernel-model.md").read_text())
        cells = re.findall(r"^\| ([^|]*`[^|]*) \|", section.group(1), re.MULTILINE)
        listed = [rule for cell in cells for rule in re.findall(rf"`({RULE})`", cell)]
        self.assertEqual(sorted(listed), sorted(set(listed)), "a rule is listed twice")
        used = rules_of_the_model()
        self.assertEqual(set(listed) - used, set(), "documented, but not in the model")
        self.assertEqual(used - set(listed), set(), "in the model, but not documented")


if __name__ == "__main__":
    unittest.main()
