#!/bin/sh
# wine-server.sh start: makes the Wine prefix when there is none and starts its server, which stays.
# wine-server.sh stop:  ends the server and every program in the prefix.
set -e
. "$(dirname "$0")/wine-env.sh"

case "${1:-}" in
  start)
    mkdir -p "$(dirname "$WINEPREFIX")"
    # Two programs that make one prefix at the same time fail.
    exec 9>"$WINEPREFIX.lock"
    flock 9
    if [ ! -d "$WINEPREFIX/drive_c/windows" ]; then
      echo "Making a Wine prefix in $WINEPREFIX" >&2
      $WINE_LAUNCHER "$WINE_LOADER" wineboot -i </dev/null >/dev/null 2>&1 9>&-
      # wineboot leaves two service managers that answer by turns; the next start has one.
      "$WINE_SERVER" -k 9>&- || true
      "$WINE_SERVER" -w 9>&- || true
    fi
    # Returns 2 when one runs already. Nothing that it inherits may be somebody's pipe.
    "$WINE_SERVER" -p </dev/null >/dev/null 2>&1 9>&- || true
    $WINE_LAUNCHER "$WINE_LOADER" cmd /c exit </dev/null >/dev/null 2>&1 9>&- || {
      echo "The first program in the Wine prefix $WINEPREFIX ended with status $?" >&2
      exit 1
    }
    ;;
  stop)
    "$WINE_SERVER" -k || true
    "$WINE_SERVER" -w || true
    ;;
  *)
    echo "usage: $0 start|stop" >&2
    exit 2
    ;;
esac
