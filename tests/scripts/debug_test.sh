#!/usr/bin/env bash
# debug_test.sh PROGRAM: shows that cmake/debug.sh stops a program (vorlhelper.exe) at a breakpoint, with
# the line of its source, and hands its arguments over. Status 77 where there is no gdb.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
command -v gdb >/dev/null || exit 77

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/commands" <<'COMMANDS'
break main
continue
info line
print argc
print argv[1]
next
info source
kill
COMMANDS
"$root/cmake/debug.sh" -x "$work/commands" "$1" --count </dev/null >"$work/said" 2>&1 || {
  cat "$work/said"
  exit 1
}
for text in 'main (argc=2, argv=' 'at samples/helper/main.cpp:' '^\$1 = 2$' '^\$2 = .* "--count"$' \
  '  Arguments arguments;' "^Located in $root/samples/helper/main.cpp$"; do
  grep -q -- "$text" "$work/said" || {
    cat "$work/said"
    echo "does not say: $text" >&2
    exit 1
  }
done
