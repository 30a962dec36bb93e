#!/usr/bin/env bash
# wine_start_test.sh FOLDER: cmake/wine.sh --must-speak starts once more what has not begun at all, and
# nothing else; what loses Wine's server is ended. FOLDER has hanging_program.exe.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export VORL_EMPTY_STARTS=$folder/empty-starts

# expect STATUS OUTPUT STARTED-AGAIN COMMAND: what a command line of Windows' shell comes to.
expect() {
  local status=0 output again=0
  rm -f "$folder"/*
  output=$(cd "$folder" && "$root/cmake/wine.sh" --must-speak cmd /c "$4" | tr -d '\r') || status=$?
  [ ! -e "$VORL_EMPTY_STARTS" ] || again=$(wc -l <"$VORL_EMPTY_STARTS")
  if [ "$status/$output/$again" != "$1/$2/$3" ]; then
    echo "FAILED: $4: status $status, output '$output', started again $again times" >&2
    exit 1
  fi
}

# Fails in silence until the file is there.
expect 0 begun 1 'if exist begun.txt (echo begun) else (copy NUL begun.txt >NUL & exit 1)'
expect 1 '' 1 'exit 1'
expect 2 '' 0 'exit 2'
expect 0 '' 0 'exit 0'
expect 1 spoken 0 'echo spoken& exit 1'
expect 1 spoken 0 'echo spoken>&2& exit 1'

# A second prefix with the same files has a server of its own, which may be killed.
own=$folder/prefix
read -r WINE_SERVER prefix < <(
  sh -c '. "$0" && echo "$WINE_SERVER $WINEPREFIX"' "$root/cmake/wine-env.sh"
)
mkdir "$own"
ln -s "$prefix/drive_c" "$prefix/dosdevices" "$own"
cp "$prefix"/*.reg "$prefix/.update-timestamp" "$own"
export WINEPREFIX=$own TMPDIR=$folder/output
mkdir "$TMPDIR"
"$WINE_SERVER" -f -p >/dev/null 2>&1 &
server=$!
until "$WINE_SERVER" -k0 2>/dev/null; do sleep 0.1; done
(cd "$1" && "$root/cmake/wine.sh" --must-speak cmd /c \
  'echo begun& hanging_program.exe mutex event grandchild') >"$folder/lost" &
program=$!
until grep -qs begun "$TMPDIR"/*; do sleep 0.1; done
kill -KILL "$server"
wait "$server" 2>/dev/null || true
status=0
wait "$program" || status=$?
if [ "$status" -ne 97 ] || ! grep -q '^WINE: its server ended' "$folder/lost"; then
  echo "FAILED: the server was killed: status $status, output '$(cat "$folder/lost")'" >&2
  exit 1
fi
echo passed
