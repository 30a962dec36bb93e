#!/usr/bin/env bash
# What the first program that cmake/wine.sh runs says, and what becomes of one that loses Wine's server,
# in a Wine of the test's own.
set -euo pipefail
cd "$(dirname "$0")/../.."
. cmake/environment.sh

work=$(mktemp -d)
export WINEPREFIX=$work/wine
still_running() { grep -lsF "$work/running" /proc/[0-9]*/cmdline; }
cleanup() {
  still_running | cut -d / -f 3 | xargs -r kill -KILL || true
  cmake/wine-server.sh stop >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAILED: $*" >&2
  exit 1
}
cmake/wine-server.sh start

# The first program that runs starts Wine's desktop, which has nothing to say here.
cmake/wine-server.sh stop
said=$(cmake/wine.sh cmd /c echo begun 2>&1 | tr -d '\r')
[ "$said" = begun ] || fail "the first program said: $said"

# A program that loses Wine's server is ended, with all that it has started.
mkfifo "$work/output"
cat "$work/output" >"$work/said" &
cmake/wine.sh cmd /c "echo 1 >Z:$work/running& for /l %i in (1,0,2) do rem" >"$work/output" &
runner=$!
until [ -s "$work/running" ]; do
  kill -0 "$runner" 2>/dev/null || fail "the program has not begun: $(cat "$work/said")"
  sleep 0.1
done
bash -c '. cmake/wine-env.sh && "$WINE_SERVER" -k9' cmake/wine.sh
timeout 120 tail --pid="$runner" -f /dev/null || fail "the program runs on without the server"
status=0
wait "$runner" || status=$?
[ "$status" -eq 97 ] || fail "status $status: $(cat "$work/said")"
grep -qx 'WINE: its server ended while the program ran' "$work/said" || fail "$(cat "$work/said")"
! still_running || fail "something of it runs on"
echo "passed"
