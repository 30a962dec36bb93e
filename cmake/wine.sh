#!/bin/sh
# wine.sh PROGRAM [ARGUMENT...]: runs a Windows program under Wine, in the build folder's prefix.
# wine-server.sh start makes the prefix and keeps its server warm.
. "$(dirname "$0")/wine-env.sh"
[ -d "$WINEPREFIX/drive_c/windows" ] || "$(dirname "$0")/wine-server.sh" start

if [ ! -p /dev/stdout ] && [ ! -S /dev/stdout ]; then
  exec $WINE_LAUNCHER "$WINE_LOADER" "$@"
fi
# Programs that Wine starts beside this one, such as its desktop, inherit the output. They would hold
# a pipe open long after the program's end, so the output takes the way through a file.
output=$(mktemp)
$WINE_LAUNCHER "$WINE_LOADER" "$@" </dev/null >"$output" 2>&1 &
program=$!
trap 'kill "$program" 2>/dev/null' INT TERM
status=0
wait "$program" || status=$?
cat "$output"
rm -f "$output"
exit "$status"
