"""vorldiag bundle: what is in it, and that nothing in a masked one tells this computer from another.

vorldiag_bundle_test.py REPOSITORY BIN
"""

import json
import re
import sys
import zipfile
from pathlib import Path

import jsonschema
from staged_tool import START, STOP, StagedTool

STRANGER = "11111111-2222-3333-4444-555555555555"


def findings(tool, *arguments):
    report = json.loads(tool.run(*arguments, "--json")[1])
    return {finding["id"]: finding for section in report["sections"] for finding in section["findings"]}


def unpack(tool, *options):
    code, output = tool.run("bundle", "ticket.zip", *options, "--json")
    tool.expect("the archive is written", code == 0)
    told = json.loads(output)
    with zipfile.ZipFile(tool.folder / "ticket.zip") as archive:
        tool.expect("it is whole", archive.testzip() is None)
        files = {name: archive.read(name) for name in archive.namelist()}
    tool.expect("what is told is in it", [(entry["name"], entry["bytes"]) for entry in told["entries"]]
                == [(name, len(data)) for name, data in files.items()])
    tool.expect("whether it is masked is told", told["masked"] == ("--mask" in options))
    return files


def check(tool):
    validator = jsonschema.Draft7Validator(
        json.loads((tool.repository / "docs/vorldiag.schema.json").read_text(encoding="utf-8")))
    found = findings(tool, "identity")
    uuid = found["bios-uuid"]["value"].split()[0]
    address = found["network-address-1"]["value"].split()[0]
    identifier = found["identifier"]["value"]
    combined = found["hashed-text"]["value"]
    title = re.search("<title>(.*)</title>", page(tool))[1]
    computer = title.removeprefix("Client Agent on ")
    dashed = address.replace(":", "-")

    tool.write_lines(START)
    tool.write_lines([
        ("A", f"{computer} has {uuid} and {uuid.replace('-', '').lower()}", 1),
        ("A", f"{address} is {dashed.upper()}", 1),
        ("A", f"hashed {combined} to {identifier.lower()}", 1),
        ("A", f"not{computer}not but \\\\{computer}\\share and {STRANGER}", 1),
        ("A", "C:\\Users\\J\u00fcrgen\\AppData and c:\\users\\j\u00dcRGEN\\x by S-1-5-21-1-2-3-1001", 1)])
    tool.write_lines([("A", f"{computer} has {uuid}", 1)], level="ERROR")
    # More than is read at once.
    tool.write_lines([("A", f"x {identifier}", 1)] * 20000, name="vorltrace.000001.log")
    tool.write_lines(STOP)
    configuration = ("[STARTUP_OPTIONS]\r\nText1=f\u00fcr " + uuid +
                     "\r\n[ADMIN_CONSOLE_CLIENT_AGENT_SECTION]\r\nclientuniqueid=" + identifier + "\r\n")
    tool.write_configuration(configuration)

    files = unpack(tool)
    names = {"report.html", "status.json", "identity.json", "conf/vorlconf.ini", "contents.txt",
             "logs/vorltrace.log", "logs/vorltrace.000001.log"}
    tool.expect("all files", set(files) == names)
    for name in names:
        path = tool.folder / name
        tool.expect(f"{name} is as it is", not path.exists() or files[name] == path.read_bytes())
    tool.expect("the identifier is in it", identifier.encode() in files["identity.json"])

    masked = {name: data.decode("utf-8") for name, data in unpack(tool, "--mask").items()}
    tool.expect("the same files", set(masked) == names)
    texts = masked.values()
    for secret in (uuid, uuid.replace("-", ""), address, dashed, re.sub("[:-]", "", address), identifier,
                   combined, STRANGER, "J\u00fcrgen", "j\u00dcRGEN", "S-1-5-21-"):
        for name, text in masked.items():
            tool.expect(f"{secret} is not in {name}", secret.lower() not in text.lower())
    tool.expect("the computer's name is no word", not any(
        re.search(rf"(?<!\w){re.escape(computer)}(?!\w)", text, re.I) for text in texts))
    tool.expect("but may be a part of one", f"not{computer}not" in masked["logs/vorltrace.log"])

    tool.expect("no line is lost", masked["logs/vorltrace.000001.log"].count(
        " A x.cpp:1 x [identifier-1]\r\n") == 20000)
    lines = masked["logs/vorltrace.log"]
    token = re.search(r"\[computer-1\] has (\[uuid-\d+\]) and (\[uuid-\d+\])", lines)
    tool.expect("one word for both forms of the UUID", token is not None and token[1] == token[2])
    own = token[1] if token else "?"
    tool.expect("and for both of the address", re.search(r"(\[address-\d+\]) is \1", lines))
    tool.expect("the text that is hashed in its parts", f"hashed {own}" in lines)
    tool.expect("one word for a person", "C:\\Users\\[user-" in lines and re.search(
        r"C:\\Users\\(\[user-\d+\])\\AppData and c:\\users\\\1\\x by \[user-\d+\]", lines))
    tool.expect("a stranger's UUID has another", not re.search(
        rf"share and {re.escape(own)}", lines) and re.search(r"share and \[uuid-\d+\]", lines))
    tool.expect("equal over all files", f"Text1=f\u00fcr {own}" in masked["conf/vorlconf.ini"]
                and "clientuniqueid=[identifier-1]" in masked["conf/vorlconf.ini"]
                and f"[computer-1] has {own}" in masked["report.html"]
                and "[identifier-1], equal to the hardware's" in masked["status.json"]
                and own in masked["identity.json"] and own in masked["report.html"])
    for name in ("status.json", "identity.json"):
        tool.expect(f"{name} keeps its form", validator.is_valid(json.loads(masked[name])))
    tool.expect("lines keep theirs", re.search(
        r"^2026-03-09 07:00:00\.000 \+01:00 INFO 47 11 vorlsrvc\.exe main x\.cpp:1 Entry\r$", lines, re.M))

    tool.expect("a file that cannot be written", tool.run("bundle", "none\\ticket.zip")[0] == 3)


def page(tool):
    tool.run("report", "report.html")
    path = tool.folder / "report.html"
    text = path.read_text(encoding="utf-8")
    path.unlink()
    return text


with StagedTool(sys.argv[1], sys.argv[2]) as staged:
    check(staged)
sys.exit(staged.failures != 0)
