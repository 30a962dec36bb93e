#!/usr/bin/env python3
"""Shows what cmake/decisions.py leaves of gcov's branches, a small source at a time."""
import json
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).parents[2] / "cmake" / "decisions.py"


def branch(count, throw=False):
    return {"count": count, "fallthrough": False, "throw": throw}


TAKEN, LEFT_OUT, THROWN = branch(1), branch(0), branch(0, throw=True)
CALL = [TAKEN, THROWN]
BOTH_WAYS = [TAKEN, TAKEN]
ONE_WAY = [TAKEN, LEFT_OUT]
UNREACHED = [LEFT_OUT, LEFT_OUT]


class Decisions(unittest.TestCase):
    def branches_left(self, text, branches, line=1, count=1):
        """Of the branches that gcov has counted at the line of the source."""
        with tempfile.TemporaryDirectory() as folder:
            source, counted, decisions = (Path(folder, name) for name in ("a.cpp", "in", "out"))
            source.write_text(text, encoding="utf-8")
            lines = [{"line_number": line, "count": count, "branches": branches}]
            counted.write_text(json.dumps({"files": [{"file": str(source), "lines": lines}]}))
            subprocess.run([sys.executable, SCRIPT, counted, decisions], check=True)
            return json.loads(decisions.read_text())["files"][0]["lines"][0]["branches"]

    def test_a_decision_stays(self):
        self.assertEqual(self.branches_left("if (a) {", ONE_WAY), ONE_WAY)
        self.assertEqual(self.branches_left("if (a) {", UNREACHED, count=0), UNREACHED)

    def test_that_a_call_returns_or_throws_is_none(self):
        self.assertEqual(self.branches_left("if (A()) {", CALL + ONE_WAY + CALL), ONE_WAY)
        self.assertEqual(self.branches_left("A();", CALL), [])
        self.assertEqual(self.branches_left("if (A()) {", [THROWN, TAKEN] + ONE_WAY), ONE_WAY)

    def test_one_that_is_never_reached_on_a_line_that_has_run_is_left_out(self):
        self.assertEqual(self.branches_left("if (a && b) {", ONE_WAY + UNREACHED), ONE_WAY)
        reached = BOTH_WAYS + ONE_WAY
        self.assertEqual(self.branches_left("if (a && b) {", reached), reached)

    def test_the_cases_of_a_switch_stay(self):
        cases = [TAKEN, LEFT_OUT, LEFT_OUT, LEFT_OUT]
        self.assertEqual(self.branches_left("switch (a) {", cases), cases)

    def test_the_decisions_of_a_function_in_the_place_of_its_call_are_not_the_callers(self):
        self.assertEqual(self.branches_left("Inlined(a);", ONE_WAY), [])
        self.assertEqual(self.branches_left("if (a) {\n  Inlined(a);\n}", ONE_WAY, line=2), [])

    def test_a_statement_goes_over_lines(self):
        text = "Before();\nreturn IsA(a) &&\n       IsB(b) &&\n       IsC(c);\nAfter();"
        for line in (2, 3, 4):
            self.assertEqual(self.branches_left(text, ONE_WAY, line=line), ONE_WAY)
        for line in (1, 5):
            self.assertEqual(self.branches_left(text, ONE_WAY, line=line), [])
        text = "return IsA(a)\n       ? b\n       : c;"
        self.assertEqual(self.branches_left(text, ONE_WAY, line=1), ONE_WAY)

    def test_comments_and_directives_end_a_statement(self):
        self.assertEqual(self.branches_left("// if it is so\nInlined(a);", ONE_WAY, line=2), [])
        self.assertEqual(self.branches_left("#if A && B\nInlined(a);", ONE_WAY, line=2), [])

    def test_a_line_that_the_source_does_not_have_has_none(self):
        self.assertEqual(self.branches_left("A();", ONE_WAY, line=9), [])


if __name__ == "__main__":
    unittest.main()
