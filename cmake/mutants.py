#!/usr/bin/env python3
"""mutants.py [COUNT [SEED]]: changes the product in COUNT places (120), one at a time, and says which
change no test notices.

Works on a copy of the sources in build/mutants, with a Wine of its own. A change of one operator,
constant, result or statement is drawn from every folder in turn. The unit's own tests (of a header
without any: those of some users) are built and run, then the other unit tests whose programs have
come out otherwise, then those that run the staged programs, until one fails. A change that leaves
every program as it was, or that does not compile, is drawn again. What is known to change nothing
visible stands in tests/equivalent_mutants.txt, with the reason.

Ends with 0 when nothing else stays unnoticed. The results are in build/mutants/results.json.
"""
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutants"
COPY = WORK / "sources"
TREE = COPY / "build" / "mingw-release"
# The tree as it is without any change: what a change has made anew is taken from there again.
CLEAN = WORK / "clean"
FOLDERS = ("app", "service", "agent", "identity", "support", "companions", "modules", "tools", "samples")
KNOWN = ROOT / "tests" / "equivalent_mutants.txt"
# Seconds a test may take before its program's watchdog ends it, and an entry of CTest in all.
LIMIT = "120"
ENTRY_LIMIT = "600"
CORES = str(len(os.sched_getaffinity(0)))
TARGETS = ("installation", "unit_test_programs")
# What else runs the staged modules, and the staged programs. The helper's own test runs it.
MODULE_TESTS = ("library_load_test", "libraries_faults_test", "death_test")
SERVICE_TESTS = ("service_e2e_test",)
DIAGNOSIS_TESTS = ("vorldiag_trace", "vorldiag_schema", "vorldiag_report", "vorldiag_bundle",
                   "vorldiag_e2e_test")

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


def build(targets, **options):
    return run(["cmake", "--build", TREE, "-j", CORES, "--target", *targets], **options)


def files_of(tree):
    """Relative path to time of every file of a build tree."""
    found = {}
    for folder, _, names in os.walk(tree):
        for name in names:
            file = os.path.join(folder, name)
            found[os.path.relpath(file, tree)] = os.stat(file).st_mtime_ns
    return found


def copy_changed(source, target):
    """Makes every file of one build tree in the other what it is here, its time included."""
    there = files_of(target)
    for name, time in files_of(source).items():
        if there.get(name) != time and not name.startswith("Testing"):
            (target / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source / name, target / name)


def wine(command):
    # What Wine leaves behind would keep a pipe open.
    subprocess.run(["cmake/wine-server.sh", command], cwd=COPY, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


def programs():
    """Name to checksum of every program and module that tests run."""
    files = [*TREE.glob("tests/unit/*.exe"), *TREE.glob("bin/*.dll"), *TREE.glob("bin/*.exe"),
             *TREE.glob("tests/unit/*/*.dll")]
    return {str(file.relative_to(TREE)): hashlib.sha256(file.read_bytes()).hexdigest() for file in files}


def own_tests(path, entries):
    """The unit tests that are named for a source file; for a header without any, those of its users."""
    def named_for(stems):
        return sorted(name for name, label in entries.items() if label == "unit" and
                      any(f"_{stem}_" in f"_{name}_" for stem in stems))

    named = named_for([path.stem])
    if named or path.suffix != ".h":
        return named
    # All that includes it is built only when none of a few has noticed anything.
    included = f'#include "{path.relative_to(COPY)}"'
    users = [source.stem for folder in FOLDERS for source in sorted((COPY / folder).rglob("*.cpp"))
             if included in source.read_text()]
    return named_for(users)[:5]


def other_tests(folders, changed, entries):
    """The entries of CTest that run what has changed, as groups: who is asked first stands first."""
    names = set()
    for file in changed:
        stem = pathlib.Path(file).stem
        # The diagnosis tool knows the checksums of what is built with it, so it changes with everything.
        if stem != "vorldiag":
            names |= {entry for entry in entries if entry == stem or
                      entry.startswith((stem + "_", stem.split("_victim")[0] + "_"))}
        if file.startswith("bin/") and file.endswith(".dll"):
            names |= set(MODULE_TESTS)
    names = {name for name in names if entries.get(name) == "unit"}
    staged = SERVICE_TESTS
    if folders[0] in ("tools", "samples"):
        staged = DIAGNOSIS_TESTS if "vorldiag" in folders else ()
    return [sorted(names), [name for name in staged if name in entries]]


def fails(tests):
    """Whether one of these entries fails."""
    environment = dict(os.environ, VORL_TEST_LIMIT_SECONDS=LIMIT)
    result = run(["ctest", "--test-dir", TREE, "-j", CORES, "--stop-on-failure", "--timeout", ENTRY_LIMIT, "-R",
                  "^(" + "|".join(tests) + ")$"], env=environment)
    return result.returncode != 0, re.findall(r"^\s*\d+ - (\S+) \(", result.stdout, re.M)


def judge(path, place, before, entries):
    """What becomes of one change, and who notices it: "noticed", "unnoticed", or None where it is none."""
    number, _, new = place
    original = path.read_text()
    time = path.stat().st_mtime_ns
    lines = original.split("\n")
    lines[number] = new
    # What is built here is built once.
    environment = dict(os.environ, CCACHE_READONLY="1")
    try:
        path.write_text("\n".join(lines))
        own = own_tests(path, entries)
        if own:
            if build(own, env=environment).returncode != 0:
                return None, []
            if programs() != before:
                failed, names = fails(own)
                if failed:
                    return "noticed", names
        if build(TARGETS, env=environment).returncode != 0:
            return None, []
        after = programs()
        changed = [file for file, checksum in after.items() if before.get(file) != checksum]
        if not changed:
            return None, []
        for tests in other_tests(path.relative_to(COPY).parts, changed, entries):
            # Those have been run.
            tests = [name for name in tests if name not in own]
            failed, names = fails(tests) if tests else (False, [])
            if failed:
                return "noticed", names
        return "unnoticed", []
    finally:
        path.write_text(original)
        os.utime(path, ns=(time, time))
        copy_changed(CLEAN, TREE)


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 120
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.SystemRandom().randrange(100000)
    draw = random.Random(seed)
    print(f"seed {seed}", flush=True)
    # Whoever ends it finds the sources as they were, too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

    known = {line.split(" # ")[0].strip() for line in KNOWN.read_text().splitlines()
             if line.strip() and not line.startswith("#")}
    COPY.mkdir(parents=True, exist_ok=True)
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True).stdout
    for name in filter(None, listed.decode().split("\0")):
        target = COPY / name
        if (ROOT / name).is_file() and (
                not target.is_file() or target.read_bytes() != (ROOT / name).read_bytes()):
            target.parent.mkdir(parents=True, exist_ok=True)
            # Written now, so that it is also built anew where a run has ended in the middle.
            shutil.copyfile(ROOT / name, target)
            shutil.copymode(ROOT / name, target)
    run(["cmake", "--preset", "mingw-release"], check=True)
    built = build([*TARGETS, "e2e_test_programs"])
    if built.returncode != 0:
        sys.exit(built.stdout[-3000:])
    before = programs()
    copy_changed(TREE, CLEAN)
    wine("start")
    entries = {}
    for label in ("e2e", "unit"):
        listed = run(["ctest", "--test-dir", TREE, "-N", "-L", label]).stdout
        entries |= dict.fromkeys(re.findall(r"Test +#\d+: (\S+)", listed), label)

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
            if any(entries[name] != "unit" for name in tests):
                # No process and no service that this change has left behind is there for the next one.
                wine("stop")
                wine("start")
            change = f"{name}: {place[1]}: {place[2].strip()}"
            if outcome == "unnoticed" and change in known:
                outcome = "equivalent"
            results.append({"file": name, "line": place[0] + 1, "operator": place[1], "new": place[2].strip(),
                            "outcome": outcome, "tests": tests})
            print(f"{len(results)} {outcome} {name}:{place[0] + 1}: {place[1]}: {place[2].strip()} {' '.join(tests)}",
                  flush=True)
    # Who fails without any change has noticed nothing.
    noticed_by = sorted({name for result in results for name in result["tests"]})
    failed, names = fails(noticed_by) if noticed_by else (False, [])
    wine("stop")

    (WORK / "results.json").write_text(json.dumps({"seed": seed, "results": results}, indent=1))
    total = {outcome: sum(result["outcome"] == outcome for result in results)
             for outcome in ("noticed", "equivalent", "unnoticed")}
    print(f"mutants {len(results)}, noticed {total['noticed']}, equivalent {total['equivalent']}, "
          f"unnoticed {total['unnoticed']}")
    if failed:
        print("without any change fails: " + " ".join(names))
    return 1 if total["unnoticed"] or failed else 0


if __name__ == "__main__":
    sys.exit(main())
