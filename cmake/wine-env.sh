# Read by the scripts beside it: finds Wine and sets the environment for every run under it.
# WINEPREFIX may be set by the caller; the default lies in the build folder.

. "$(dirname "$0")/environment.sh"
for folder in /usr/lib/wine /usr/bin; do
  [ -x "$folder/wine64" ] && WINE_LOADER=$folder/wine64 && break
done
if [ -z "${WINE_LOADER:-}" ]; then
  WINE_LOADER=$(command -v wine64 || command -v wine) || {
    echo "Wine is not installed (Debian: wine64)" >&2
    exit 1
  }
fi
# Windows' page of shared data has its place in every process. Where the kernel lays a heap over it,
# about once in several thousand starts, Wine ends with status 1 (or its CreateProcess with error
# 1359), so addresses are not randomised where that can be chosen; some containers forbid it.
WINE_LAUNCHER="setarch $(uname -m) --addr-no-randomize"
$WINE_LAUNCHER true 2>/dev/null || WINE_LAUNCHER=
for server in /usr/lib/wine/wineserver64 /usr/lib/wine/wineserver /usr/bin/wineserver; do
  [ -x "$server" ] && WINE_SERVER=$server && break
done

: "${WINEPREFIX:=$(cd "$(dirname "$0")/.." && pwd)/build/wine}"
WINEARCH=win64
WINEDEBUG=${WINEDEBUG:--all}
# Without winedbg.exe switched off, most crashed programs end with status 0. Where there is no display,
# newer Wines' winewayland.drv says so among the output of whichever program is the first to run.
WINEDLLOVERRIDES=${WINEDLLOVERRIDES-mscoree,mshtml,winedbg.exe,winewayland.drv=}
export WINEPREFIX WINEARCH WINEDEBUG WINEDLLOVERRIDES
