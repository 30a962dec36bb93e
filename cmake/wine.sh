#!/bin/sh
# wine.sh PROGRAM [ARGUMENT...]: runs a Windows program under Wine, in the build folder's prefix.
# wine-server.sh start makes the prefix and keeps its server warm.
. "$(dirname "$0")/wine-env.sh"
[ -d "$WINEPREFIX/drive_c/windows" ] || "$(dirname "$0")/wine-server.sh" start
exec "$WINE_LOADER" "$@"
