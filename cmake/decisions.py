#!/usr/bin/env python3
"""Leaves the decisions of the sources in what gcovr has counted, and nothing that the compiler adds.

decisions.py COUNTED.json DECISIONS.json

gcov calls three things branches besides decisions, the first two of them many where texts are put
together:

- A call that may throw has two: it returned, or it has thrown. Whether it was made at all is told by
  its line.
- What is cleaned up after an exception asks which objects there are already. Such a branch is never
  reached although its line has run. So is a decision behind one that has always come out the same
  way, on the line or above it: that one is shown then, and the one behind it as soon as it is
  reached. Therefore nothing is all counted while a decision is left out.
- The decisions of a function that the compiler has put in the place of its call stand at the call, too.
  A statement that names none has none of its own.

The cases of a switch always stay.
"""
import json
import re
import sys
from pathlib import Path


DECISION = re.compile(r"\b(if|while|for|switch|case|default|catch)\b|\?|&&|\|\|")
END = re.compile(r"[;{}:]\s*(//.*)?$|^\s*(//.*|#.*)?$")


def statement_at(source, index):
    """The lines of the statement that the line is part of; none where there is no such line."""
    first = last = min(index, len(source))
    while first > 0 and not END.search(source[first - 1]):
        first -= 1
    while last + 1 < len(source) and not END.search(source[last]):
        last += 1
    return "\n".join(source[first : last + 1])


def without_calls(branches):
    kept = []
    rest = list(branches)
    while rest:
        if len(rest) > 1 and rest[0]["throw"] != rest[1]["throw"]:
            del rest[:2]
        else:
            kept.append(rest.pop(0))
    return [branch for branch in kept if not branch["throw"]]


def without_unreached(branches):
    pairs = zip(branches[::2], branches[1::2])
    return [branch for pair in pairs if any(one["count"] for one in pair) for branch in pair]


def main():
    counted, decisions = sys.argv[1:]
    data = json.loads(Path(counted).read_text(encoding="utf-8"))
    for file in data["files"]:
        source = Path(file["file"]).read_text(encoding="utf-8").splitlines()
        for line in file["lines"]:
            branches = without_calls(line["branches"])
            index = line["line_number"] - 1
            text = source[index] if index < len(source) else ""
            if line["count"] and len(branches) % 2 == 0 and "switch (" not in text:
                branches = without_unreached(branches)
            line["branches"] = branches if DECISION.search(statement_at(source, index)) else []
    Path(decisions).write_text(json.dumps(data), encoding="utf-8")


if __name__ == "__main__":
    main()
