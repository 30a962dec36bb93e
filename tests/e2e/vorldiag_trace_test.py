"""vorldiag trace and vorldiag cache, beside a trace that is written here.

vorldiag_trace_test.py REPOSITORY BIN
"""

import json
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import jsonschema

repository, binaries = Path(sys.argv[1]), Path(sys.argv[2])
folder = Path(tempfile.mkdtemp(dir=binaries.parent))
(folder / "logs").mkdir()
shutil.copy(binaries / "vorldiag.exe", folder)
failures = 0


def run(*arguments):
    result = subprocess.run(
        [repository / "cmake/wine.sh", folder / "vorldiag.exe", *arguments],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
    )
    return result.returncode, result.stdout.decode("utf-8").replace("\r\n", "\n")


def wait_for(path, text):
    """Until a program that runs beside this one has written it; the limit only a defect reaches."""
    for _ in range(1200):
        if text in path.read_bytes().decode("utf-8", "replace"):
            return True
        time.sleep(0.05)
    return False


def follow(lines, last, *arguments):
    """What `trace --follow --json` writes on its output while the lines are written; one document
    a line."""
    out, err = folder / "follow.out", folder / "follow.err"
    with open(out, "wb") as output, open(err, "wb") as errors, subprocess.Popen(
            [repository / "cmake/wine.sh", folder / "vorldiag.exe", "trace", "--follow", "--json",
             *arguments], stdin=subprocess.DEVNULL, stdout=output, stderr=errors) as follower:
        try:
            expect("the follower begins", wait_for(err, "until Ctrl+C."))
            with open(folder / "logs/vorltrace.log", "a", encoding="utf-8", newline="\r\n") as trace:
                trace.write("".join(line + "\n" for line in lines))
            expect("the last line is shown", wait_for(out, last + "\"}]}"))
        finally:
            follower.kill()
    return out.read_bytes().decode("utf-8").splitlines()


def expect(what, is_so):
    global failures
    if not is_so:
        print("FAILED:", what)
        failures += 1


STEPS = [
    ("main", "Entry", 2),
    ("main", "After Calling SetClientAgentLogOptions", 2),
    ("IsClientUUIDPresent", "Entry", 2),
    ("IsClientUUIDPresent", "Client UUID is not present in INI .Creating new ...", 1),
    ("CreateAndSetClientUUID", "Entry", 2),
    ("CreateAndSetClientUUID", "Exit", 2),
    ("CNTService::ParseStandardArgs", "Entry", 2),
    ("CNTService::ParseStandardArgs", "No Arguments hence returning", 2),
    ("main", "Before Creating CAcAsSvc Object", 2),
    ("CAcAsSvc::Run", "LoadAcresDll() failed.", 1),
]
WORDS = {1: "ERROR", 2: "INFO"}
with open(folder / "logs/vorltrace.log", "w", encoding="utf-8", newline="\r\n") as log:
    for number, (function, text, level) in enumerate(STEPS):
        log.write(f"2026-03-09 07:05:02.{number * 10:03} +01:00 {WORDS[level]} 47 11 vorlsrvc.exe "
                  f"{function} x.cpp:1 {text}\n")

try:
    code, text = run("trace", "--level", "error")
    expect("only errors are shown", code == 0 and len(text.splitlines()) == 2)
    code, text = run("trace", "--function", "parsestandard")
    expect("a part of the function's name", len(text.splitlines()) == 2)
    code, text = run("trace", "--since", "2026-03-09 07:05:02.080")
    expect("from a moment on", len(text.splitlines()) == 2)
    code, text = run("trace", "--level", "loud")
    expect("an unknown level is refused", code == 3 and "--help" in text)

    code, text = run("trace", "--start")
    expect("the missing step is named", "step 5 of 14 is missing" in text)
    expect("what one call took", "      +0  main  " in text and "  CreateAndSetClientUUID  10 ms\n" in text)
    expect("a failed call ends", "\n     +40    CreateAndSetClientUUID  10 ms\n" in text)

    code, text = run("trace", "--start", "--json")
    document = json.loads(text)
    calls = [row for row in document["threads"][0]["rows"] if "exit" in row]
    expect("calls of the tree", [(call["function"], call["depth"]) for call in calls] == [
        ("main", 0), ("IsClientUUIDPresent", 1), ("CreateAndSetClientUUID", 1),
        ("CNTService::ParseStandardArgs", 1)])

    code, text = run("trace", "--perfetto", "Z:" + str(folder / "out.json").replace("/", "\\"))
    events = json.loads((folder / "out.json").read_text(encoding="utf-8"))["traceEvents"]
    expect("a complete event for each call", [e["name"] for e in events if e["ph"] == "X"] == [
        c["function"] for c in calls])
    expect("microseconds", [e["ts"] for e in events if e["ph"] == "X"][2] == 40000)

    place = "Z:" + str(folder).replace("/", "\\")
    code, text = run("cache", "check", "--folder", place)
    expect("a missing file is an error", code == 2 and "is not there" in text)
    code, text = run("cache", "write", "--folder", place)
    expect("written", code == 0 and (folder / "hwcdata.dat").stat().st_size == 182)
    code, text = run("cache", "check", "--folder", place)
    expect("the same hardware", code == 0)
    # Another BIOS UUID, with a checksum that fits: halves of bytes are exchanged in the file.
    data = bytearray((folder / "hwcdata.dat").read_bytes())
    data[9 + 36] = 0x85  # "X"
    import zlib
    data[5:9] = zlib.crc32(bytes(data[9:])).to_bytes(4, "little")
    (folder / "hwcdata.dat").write_bytes(data)
    code, text = run("cache", "check", "--folder", place)
    expect("the parameter that differs", code == 1 and "warning  BIOS UUID" in text
           and text.count("warning  ") == 1)
    data[50] ^= 1
    (folder / "hwcdata.dat").write_bytes(data)
    code, text = run("cache", "check", "--folder", place)
    expect("a damaged file", code == 2 and "cannot be used" in text)

    schema = json.loads((repository / "docs/vorldiag.schema.json").read_text(encoding="utf-8"))
    validator = jsonschema.Draft7Validator(schema)
    head = "2026-03-09 07:06:00.000 +01:00"
    documents = [json.loads(line) for line in follow(
        [f"{head} VERBOSE 47 11 vorlsrvc.exe A::~A x.cpp:1 \u00fc \"quoted\" \\ <b>",
         "half of a line", "", f"{head} LEVEL4 47 11 C:\\x y.dll operator() x y.cpp:12 text",
         f"{head} ERROR 4294967295 11 other.exe F x.cpp:1 last line"], "last line")]
    for document in documents:
        expect("a followed line fits the schema", validator.is_valid(document))
        expect("one line in a document", len(document["lines"]) == 1)
    texts = [document["lines"][0]["text"] for document in documents]
    expect("what was there before is not shown", texts[0] == "\u00fc \"quoted\" \\ <b>")
    expect("the schema can refuse one", not validator.is_valid(
        {**documents[0], "lines": [{**documents[0]["lines"][0], "level": "LOUD"}]}))
    filtered = [json.loads(line) for line in follow(
        [f"{head} INFO 48 11 vorlsrvc.exe B x.cpp:1 other", f"{head} INFO 48 11 vorlsrvc.exe C "
         "x.cpp:1 wanted"], "wanted", "--function", "c", "--process", "48")]
    expect("with a filter, too", [document["lines"][0]["text"] for document in filtered] == ["wanted"]
           and all(validator.is_valid(document) for document in filtered))
finally:
    if failures:
        print(text)
    shutil.rmtree(folder)
sys.exit(failures != 0)
