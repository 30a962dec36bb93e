#!/usr/bin/env bash
# debug.sh [-x COMMANDS] PROGRAM [ARGUMENT...]: runs a Windows program under Wine in the debugger gdb,
# with its sources. It waits ahead of its first instruction; go on with "continue". With -x the
# commands of that file are carried out, and gdb ends with them. Programs with debug information are
# in build/mingw-debug. Needs the Debian package gdb.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# Wine's debugger, which is otherwise switched off, is the server that gdb talks to.
: "${WINEDLLOVERRIDES:=mscoree,mshtml=}"
. "$root/cmake/wine-env.sh"
"$root/cmake/wine-server.sh" start

mode=()
if [ "${1:-}" = -x ]; then
  mode=(-batch -x "$2")
  shift 2
fi
[ $# -gt 0 ] || {
  sed -n '2,5s/^# //p' "$0" >&2
  exit 2
}

# A port that nobody listens on.
port=$((20000 + $$ % 20000))
while grep -q ":$(printf %04X $port) " /proc/net/tcp; do
  port=$((port + 1))
done
$WINE_LAUNCHER "$WINE_LOADER" winedbg --gdb --no-start --port "$port" "$@" </dev/null &
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
# It tries again until the server listens. Not every machine knows the name of the address. Wine 10's
# server answers the first question only when it is asked a second time, which is after remotetimeout
# seconds; a busy machine may need some of them, too.
gdb -q -iex "set debuginfod enabled off" -iex "set tcp connect-timeout 120" \
  -iex "set remotetimeout 10" -iex "directory $root" -ex "target remote 127.0.0.1:$port" \
  "${mode[@]}" "$1"
