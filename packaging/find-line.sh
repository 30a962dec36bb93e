#!/usr/bin/env bash
# find-line.sh DEBUG-FILE OFFSET...: function and source line of each place in a binary, with the
# calls that were built into it. OFFSET counts from where the binary is loaded (hexadecimal, as crash
# reports write it). BINARY=FILE: first checks that the debug file belongs to that binary.
set -euo pipefail
[ $# -ge 2 ] || {
  sed -n '2,4s/^# //p' "$0" >&2
  exit 2
}
folder=$(dirname "$0")
debug=$1
shift
if [ -n "${BINARY:-}" ]; then
  of_binary=$("$folder/build-id.sh" "$BINARY" | cut -d' ' -f1)
  of_debug=$("$folder/build-id.sh" "$debug" | cut -d' ' -f1)
  [ "$of_binary" = "$of_debug" ] || {
    echo "$BINARY is build $of_binary, $debug belongs to build $of_debug" >&2
    exit 1
  }
fi
base=0x$(x86_64-w64-mingw32-objdump -p "$debug" | awk '$1 == "ImageBase" { print $2 }')
for offset in "$@"; do
  x86_64-w64-mingw32-addr2line -C -f -i -p -e "$debug" "$(printf '0x%x' $((base + 16#${offset#0x})))" |
    sed 's#\( at\| by\) \./#\1 #'
done
