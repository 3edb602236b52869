"""The enumeration of mutants, the draw, and the list of those that make no difference."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "measure"))

import mutants  # noqa: E402
import mutations  # noqa: E402

HEADER = "enum : ULONG { BIG_ONE = 1, BIG_TWO = 2 };\ninline bool F() { return TRUE; }\n"
SAMPLE = """#include <a == b>
constexpr ULONG ROOM = 24;  // not 25
static_assert(ROOM == 24);
static NTSTATUS Take(Pipe *Pipe, ULONG Flags) REQUIRES(Pipe->Lock) {
  UNREFERENCED_PARAMETER(Flags == 1);
  NT_ASSERT(Flags > 1);
  TraceEvent(Flags < 7);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Pipe->PortLock);
  if (Flags < static_cast<ULONG>(BIG_ONE) && Pipe != nullptr) {
    Pipe->Flags = FIRST | SECOND;
    Deliver(Pipe,
            Flags + ROOM);
    Wake(Pipe);
  }
  KeReleaseSpinLock(&Pipe->PortLock, irql);
  return Flags > 5 ? STATUS_SUCCESS : STATUS_CANCELLED;
}
"""
TEXTS = {"a/a.h": HEADER, "a/b.cpp": SAMPLE}


class Mutants(unittest.TestCase):
    def setUp(self):
        self.found = mutations.all_mutants(TEXTS)
        self.changes = [mutant.change for mutant in self.found]

    def test_every_kind_is_found_and_nothing_else_is_touched(self):
        self.assertEqual({mutant.kind for mutant in self.found}, set(mutations.KINDS))
        for change in ("comparison: < -> <=", "comparison: > -> >=", "condition: never",
                       "condition: the other choice", "constant: 24 -> 25", "constant: 5 -> 4",
                       "flag: | SECOND left out", "flag: FIRST | left out", "logic: && -> ||",
                       "lock: &Pipe->PortLock not taken", "lock: &Pipe->PortLock -> AdmissionLock",
                       "logic: && Pipe != nullptr left out", "mirror: TRUE -> FALSE",
                       "name: BIG_ONE -> BIG_TWO", "order: after Wake(Pipe);",
                       "statement: Wake(Pipe); left out", "arithmetic: + -> - before ROOM",
                       "status: STATUS_CANCELLED -> STATUS_SUCCESS"):
            self.assertIn(change, self.changes)
        # Comments, includes, assertions, annotations, traces and casts.
        lines = {mutant.line for mutant in self.found if mutant.file == "a/b.cpp"}
        self.assertEqual(lines & {1, 3, 4, 5, 6}, set())
        self.assertEqual(self.changes.count("comparison: < -> <="), 1)
        self.assertEqual({m.routine for m in self.found}, {"", "F", "Take"})

    def test_a_change_is_made_where_it_says(self):
        def mutated(change):
            return mutations.mutated(SAMPLE, self.found[self.changes.index(change)])
        self.assertIn("Flags <= static_cast<ULONG>(BIG_ONE) &&", mutated("comparison: < -> <="))
        self.assertIn("? STATUS_CANCELLED : STATUS_SUCCESS;",
                      mutated("condition: the other choice"))
        self.assertIn("    Wake(Pipe);\n    Deliver(Pipe,\n", mutated("order: after Wake(Pipe);"))
        unlocked = mutated("lock: &Pipe->PortLock not taken")
        self.assertIn("irql = KeGetCurrentIrql();", unlocked)
        self.assertIn("  static_cast<void>(irql);\n", unlocked)
        for mutant in self.found:
            self.assertNotEqual(mutations.mutated(TEXTS[mutant.file], mutant), TEXTS[mutant.file])

    def test_the_draw_follows_from_the_seed(self):
        keys = [mutants.key(mutant) for mutant in self.found]
        self.assertEqual(len(set(keys)), len(keys))
        drawn = mutations.draw(self.found, 12, "1")
        self.assertEqual(drawn, mutations.draw(list(reversed(self.found))[::-1], 12, "1"))
        self.assertNotEqual(drawn, mutations.draw(self.found, 12, "2"))
        self.assertEqual({mutant.kind for mutant in drawn}, set(mutations.KINDS))
        self.assertEqual(len(mutations.draw(self.found, 10000, "1")), len(self.found))

    def test_an_entry_that_fits_nothing_is_refused(self):
        entry = "a/b.cpp Take\nWake(Pipe);\nstatement: Wake(Pipe); left out\nnobody sleeps\n"
        known = mutants.read_equivalent("# a comment\n\n" + entry)
        self.assertEqual(mutants.without_equivalent(self.found, known),
                         {("a/b.cpp Take", "Wake(Pipe);", "statement: Wake(Pipe); left out")})
        for stale in (entry.replace("Wake", "Woke"), entry + "more\n"):
            with self.assertRaises(mutants.Refused):
                mutants.without_equivalent(self.found, mutants.read_equivalent(stale))


if __name__ == "__main__":
    unittest.main()
