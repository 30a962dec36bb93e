"""Runs commands of the staged vorldiag.exe and holds their JSON to docs/vorldiag.schema.json.

vorldiag_schema_test.py REPOSITORY BIN: without a registered service, which is what a schema must
bear, too.
"""

import json
import subprocess
import sys
from pathlib import Path

import jsonschema

repository, folder = Path(sys.argv[1]), Path(sys.argv[2])
schema = json.loads((repository / "docs/vorldiag.schema.json").read_text(encoding="utf-8"))
jsonschema.Draft7Validator.check_schema(schema)
validator = jsonschema.Draft7Validator(schema)

failures = 0
for arguments in (
    ["trace"],
    ["trace", "--start"],
    ["trace", "--stop"],
    ["trace", "--perfetto", "schema_test.tmp"],
    ["report", "schema_test.tmp"],
    ["bundle", "schema_test.tmp"],
    ["bundle", "schema_test.tmp", "--mask"],
    ["cache", "write", "--folder", "."],
    ["cache", "check", "--folder", "."],
    ["cache", "check"],
    ["status"],
    ["identity"],
    ["identity", "--both"],
):
    result = subprocess.run(
        [repository / "cmake/wine.sh", folder / "vorldiag.exe", *arguments, "--json"],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        check=False,
    )
    document = json.loads(result.stdout.decode("utf-8"))
    errors = [f"{error.json_path}: {error.message}" for error in validator.iter_errors(document)]
    if document["command"] != arguments[0]:
        errors.append("another command: " + document["command"])
    print(" ".join(arguments), "exit code", result.returncode, "errors", errors)
    failures += len(errors)

Path("schema_test.tmp").unlink()
Path("hwcdata.dat").unlink()

# The schema must be able to refuse.
document["sections"][0]["findings"][0]["verdict"] = "fine"
if validator.is_valid(document):
    print("the schema takes anything")
    failures += 1
sys.exit(failures != 0)
