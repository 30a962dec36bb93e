"""vorldiag trace and vorldiag cache, beside a trace that is written here.

vorldiag_trace_test.py REPOSITORY BIN
"""

import json
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

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
finally:
    if failures:
        print(text)
    shutil.rmtree(folder)
sys.exit(failures != 0)
