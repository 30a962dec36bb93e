#!/usr/bin/env bash
# cmake/lint.sh finds what each of its passes is there for, in a copy of the sources into which
# mistakes are put.
set -euo pipefail
cd "$(dirname "$0")/../.."

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

clang-tidy --version 2>/dev/null | grep -q 'version 14\.' || {
  echo "left out: cmake/lint.sh checks with clang 14"
  exit 77
}
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
tar -c --exclude='./build*' --exclude=./.git . | tar -x -C "$copy"
mkdir -p "$copy/build/mingw-release/tool_headers"
source=service/reportgate.cpp
line=$(($(wc -l <"$source") + 2)) # of what is put in

# found CHECK LINE...: with the lines at the end of a source, the CHECK finds something in it, and names
# it, although it is not the first one of its folder.
found() {
  local check=$1
  shift
  cp "$source" "$copy/$source"
  printf '\n%s\n' "$*" >>"$copy/$source"
  clang-format -i "$copy/$source"
  ! output=$("$copy/cmake/lint.sh" service/registration.cpp "$source" 2>&1) || fail "$check: nothing was found"
  grep -q "^$source:[0-9]*:.*error: .*\[$check" <<<"$output" || fail "$check: $output"
}

found modernize-use-nullptr 'int* Planted() { return NULL; }'
grep -q "^$source:$line:" <<<"$output" || fail "not in line $line: $output"
found clang-analyzer-core.NullDereference \
  'int Planted(int* p, int k) { if (k > 3) { p = nullptr; } return k > 4 ? *p : 0; }'
found clang-diagnostic-unused-function 'static int Planted() { return 1; }'

cp "$source" "$copy/$source"
printf '\n%s\n' '#include "service/reportgate.h"' >>"$copy/$source"
! output=$("$copy/cmake/lint.sh" "$source" 2>&1) || fail "an include for the second time: nothing was found"
grep -q "^$source:$line: error: #include .* for the second time" <<<"$output" || fail "$output"
echo "passed"
