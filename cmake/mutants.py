#!/usr/bin/env python3
"""mutants.py [COUNT [SEED]]: changes the product in COUNT places (120), one at a time, and says which
change no unit test notices.

Works on a copy of the sources in build/mutants, with a Wine of its own. A change
of one operator, constant, result or statement is drawn from every folder in turn; it is built, and
the test programs that have come out otherwise are run. A change that leaves every program as it was,
or that does not compile, is drawn again. What is known to change nothing visible stands in
tests/equivalent_mutants.txt, with the reason.

Ends with 0 when nothing else stays unnoticed. The results are in build/mutants/results.json.
"""
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutants"
COPY = WORK / "sources"
TREE = COPY / "build" / "mingw-release"
FOLDERS = ("app", "service", "agent", "identity", "support", "companions", "modules", "tools", "samples")
KNOWN = ROOT / "tests" / "equivalent_mutants.txt"
# Seconds a test may take before its program's watchdog ends it.
LIMIT = "60"

# (name, what is looked for outside of texts and comments, what takes its place)
OPERATORS = (
    ("equal", r"==", "!="),
    ("unequal", r"!=", "=="),
    ("less", r"(?<= )<(?= )", "<="),
    ("less or equal", r"<=(?=[^>])", "<"),
    ("greater", r"(?<= )>(?= )", ">="),
    ("greater or equal", r"(?<= )>=", ">"),
    ("and", r"&&(?= )", "||"),
    ("or", r"\|\|", "&&"),
    ("not", r"(?<=[( ])!(?=[A-Za-z_(:])", ""),
    ("true", r"\b(TRUE|true)\b", None),
    ("false", r"\b(FALSE|false)\b", None),
    ("plus one", r"(?<=[\w)\]] )\+ 1\b", ""),
    ("minus one", r"(?<=[\w)\]] )- 1\b", ""),
    ("one more", r"(?<![\w.\"'])\d{1,5}(?![\w.'])", None),
    ("statement", r"^ +(?!return|throw|break|continue|using|case|delete|co_|goto|else)"
                  r"(?:[A-Za-z_][\w:]*(?:\(|->|\.|\[)[^;{}]*|[\w\->.\[\]]+ [|&^+-]?= [^;{}]+);$", ""),
)
SWAPPED = {"TRUE": "FALSE", "FALSE": "TRUE", "true": "false", "false": "true"}
LEFT_OUT = re.compile(r"^\s*(#|//|static_assert|using |namespace|template|constexpr|\[\[|extern|enum|case )")


def blanked(line):
    """The line with the contents of its texts and its comment as blanks of the same length."""
    line = re.sub(r'"(?:[^"\\]|\\.)*"|\'(?:[^\'\\]|\\.)+\'', lambda m: '"' + " " * (len(m[0]) - 2) + '"', line)
    return re.sub(r"//.*", lambda m: " " * len(m[0]), line)


def places_in(path):
    """Every (line number, operator, new line) that a file has room for."""
    found = []
    lines = path.read_text().split("\n")
    for number, line in enumerate(lines):
        code = blanked(line)
        if LEFT_OUT.match(code):
            continue
        for name, pattern, new in OPERATORS:
            # A statement that begins on an earlier line is not whole.
            if name == "statement" and not re.search(r"[;{}:]\s*$|^\s*$", blanked(lines[number - 1])):
                continue
            for match in re.finditer(pattern, code):
                text = new
                if name in ("true", "false"):
                    text = SWAPPED[match[0]]
                elif name == "one more":
                    text = str(int(match[0]) + 1)
                elif name == "statement":
                    text = re.match(r" *", line)[0] + ";"
                found.append((number, name, line[: match.start()] + text + line[match.end():]))
    return found


def run(command, **options):
    return subprocess.run(command, cwd=COPY, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", **options)


def build():
    return run(["cmake", "--build", TREE, "--target", "installation", "unit_test_programs"])


def wine(command):
    # What Wine leaves behind would keep a pipe open.
    subprocess.run(["cmake/wine-server.sh", command], cwd=COPY, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


def programs():
    """Name to checksum of every program and module that tests run."""
    files = [*TREE.glob("tests/unit/*.exe"), *TREE.glob("tests/faults/*.exe"), *TREE.glob("bin/*.dll"),
             *TREE.glob("bin/*.exe"), *TREE.glob("tests/unit/*/*.dll")]
    return {str(file.relative_to(TREE)): hashlib.sha256(file.read_bytes()).hexdigest() for file in files}


def tests_of(changed, entries):
    """The entries of CTest that run what has changed."""
    names = set()
    for file in changed:
        stem = pathlib.Path(file).stem
        names |= {entry for entry in entries if entry == stem or
                  entry.startswith((stem + "_", stem.split("_victim")[0] + "_"))}
    return sorted(names)


def judge(path, place, before, entries):
    """What becomes of one change: "noticed", "unnoticed", or None where it is none."""
    number, _, new = place
    original = path.read_text()
    lines = original.split("\n")
    lines[number] = new
    try:
        path.write_text("\n".join(lines))
        if build().returncode != 0:
            return None, []
        after = programs()
        changed = [file for file, checksum in after.items() if before.get(file) != checksum]
        if not changed:
            return None, []
        tests = tests_of(changed, entries)
        if not tests:
            return "unnoticed", tests
        environment = dict(os.environ, VORL_TEST_LIMIT_SECONDS=LIMIT)
        result = run(["ctest", "--test-dir", TREE, "-j", str(os.cpu_count()), "--stop-on-failure", "-R",
                      "^(" + "|".join(tests) + ")$"], env=environment)
        return ("unnoticed" if result.returncode == 0 else "noticed"), tests
    finally:
        path.write_text(original)


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 120
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(100000)
    draw = random.Random(seed)
    print(f"seed {seed}")

    known = {line.split(" # ")[0].strip() for line in KNOWN.read_text().splitlines()
             if line.strip() and not line.startswith("#")}
    COPY.mkdir(parents=True, exist_ok=True)
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True).stdout
    for name in filter(None, listed.decode().split("\0")):
        target = COPY / name
        if (ROOT / name).is_file() and (
                not target.is_file() or target.read_bytes() != (ROOT / name).read_bytes()):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, target)
    run(["cmake", "--preset", "mingw-release"], check=True)
    built = build()
    if built.returncode != 0:
        sys.exit(built.stdout[-3000:])
    before = programs()
    wine("start")
    entries = re.findall(r"Test +#\d+: (\S+)", run(["ctest", "--test-dir", TREE, "-N", "-L", "unit"]).stdout)

    rooms = {}
    for folder in FOLDERS:
        places = [(path, place) for path in sorted((COPY / folder).rglob("*"))
                  if path.suffix in (".cpp", ".h") for place in places_in(path)]
        draw.shuffle(places)
        if places:
            rooms[folder] = places
    results = []
    while len(results) < count and any(rooms.values()):
        for folder, places in rooms.items():
            if not places or len(results) >= count:
                continue
            path, place = places.pop()
            name = str(path.relative_to(COPY))
            outcome, tests = judge(path, place, before, entries)
            if outcome is None:
                continue
            change = f"{name}: {place[1]}: {place[2].strip()}"
            if outcome == "unnoticed" and change in known:
                outcome = "equivalent"
            results.append({"file": name, "line": place[0] + 1, "operator": place[1], "new": place[2].strip(),
                            "outcome": outcome, "tests": tests})
            if outcome != "noticed":
                print(f"{outcome} {name}:{place[0] + 1}: {place[1]}: {place[2].strip()}", flush=True)
    build()
    wine("stop")

    (WORK / "results.json").write_text(json.dumps({"seed": seed, "results": results}, indent=1))
    total = {outcome: sum(result["outcome"] == outcome for result in results)
             for outcome in ("noticed", "equivalent", "unnoticed")}
    print(f"mutants {len(results)}, noticed {total['noticed']}, equivalent {total['equivalent']}, "
          f"unnoticed {total['unnoticed']}")
    return 1 if total["unnoticed"] else 0


if __name__ == "__main__":
    sys.exit(main())
