#!/usr/bin/env bash
# build-id.sh FILE...: the build identifier of each binary or debug file, and its name.
set -euo pipefail
for file in "$@"; do
  id=$(x86_64-w64-mingw32-objdump -p "$file" | sed -n 's/.*RSDS signature \([0-9a-f]*\) .*/\1/p')
  [ -n "$id" ] || {
    echo "$file has no build identifier" >&2
    exit 1
  }
  echo "$id  ${file##*/}"
done
