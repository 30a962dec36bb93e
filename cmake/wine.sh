#!/usr/bin/env bash
# wine.sh [--must-speak] PROGRAM [ARGUMENT...]: runs a Windows program under Wine, in the build
# folder's prefix. wine-server.sh start makes the prefix and keeps its server warm.
#
# --must-speak: the program prints something as soon as it begins. Wine fails to start about one
# process in several thousand, with status 1 and no output at all. What ends so has not been started;
# it is started once more, and a line in the file VORL_EMPTY_STARTS (build/wine.empty-starts) tells
# of it.
#
# A program that loses Wine's server would hang for ever. It is ended with status 97, unless its output
# goes straight into a file.
. "$(dirname "$0")/wine-env.sh"
[ -d "$WINEPREFIX/drive_c/windows" ] || "$(dirname "$0")/wine-server.sh" start

must_speak=
if [ "${1:-}" = --must-speak ]; then
  must_speak=yes
  shift
elif [ ! -p /dev/stdout ] && [ ! -S /dev/stdout ]; then
  exec $WINE_LAUNCHER "$WINE_LOADER" "$@"
fi

# Programs that Wine starts beside this one, such as its desktop, inherit the output. They would hold
# a pipe open long after the program's end, so the output takes the way through a file.
output=$(mktemp)
server=
trap 'rm -f "$output"; kill $server 2>/dev/null' EXIT
trap 'kill "$program" 2>/dev/null' INT TERM

# What waits for the server's end must not take a server that is only about to start for one that has
# ended. Returns 2 when one runs already.
"$WINE_SERVER" -p </dev/null >/dev/null 2>&1 || true
"$WINE_SERVER" -w </dev/null >/dev/null 2>&1 &
server=$!

run() {
  setsid $WINE_LAUNCHER "$WINE_LOADER" "$@" </dev/null >"$output" 2>&1 &
  program=$!
  status=0
  wait -n "$program" "$server" || status=$?
  if ! kill -0 "$server" 2>/dev/null; then
    # And what it has started.
    kill -KILL -- "-$program" 2>/dev/null
    wait "$program" 2>/dev/null
    echo "WINE: its server ended while the program ran" >>"$output"
    status=97
  fi
}

run "$@"
if [ -n "$must_speak" ] && [ "$status" -eq 1 ] && [ ! -s "$output" ]; then
  echo "$*" >>"${VORL_EMPTY_STARTS:-$WINEPREFIX.empty-starts}"
  run "$@"
fi
cat "$output"
exit "$status"
