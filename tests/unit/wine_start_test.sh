#!/usr/bin/env bash
# cmake/wine.sh --must-speak starts once more what has not begun at all, and nothing else.
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
echo passed
