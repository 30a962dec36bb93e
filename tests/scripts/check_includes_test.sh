#!/usr/bin/env bash
# Shows that cmake/check-includes.sh lets the sources pass and names an include in a forbidden
# direction.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
"$root/cmake/check-includes.sh"

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
mkdir -p app service agent identity support companions/vorlinfo companions/vorlmisc modules/vorlcore modules/vorlupd samples/helper tools

fails_at() { # FILE INCLUDE
  printf '// A comment.\n#include "%s"\n' "$2" >"$1"
  if "$root/cmake/check-includes.sh" "$folder" 2>"$folder/said"; then
    echo "$1 may include $2" >&2
    exit 1
  fi
  grep -qxF "$1:2: may not include $2" "$folder/said" || {
    cat "$folder/said" >&2
    exit 1
  }
  rm "$1"
}
passes_at() { # FILE INCLUDE
  printf '#include "%s"\n' "$2" >"$1"
  "$root/cmake/check-includes.sh" "$folder"
  rm "$1"
}

passes_at support/trace.cpp support/trace.h
fails_at support/trace.cpp service/ntservc.h
passes_at service/vorlfun.cpp support/trace.h
fails_at service/vorlfun.cpp agent/vorlsvc.h
fails_at agent/vorlsvc.cpp identity/ztuuid.h
fails_at identity/ztuuid.cpp service/ntservc.h
fails_at identity/ztuuid.h app/vorlsrvc.h
fails_at app/vorlsrvc.cpp companions/vorlmisc/folders.h
passes_at companions/vorlinfo/vorlinfo.cpp support/vorlinfo.h
passes_at companions/vorlinfo/vorlinfo.cpp support/handle.h
fails_at companions/vorlinfo/vorlinfo.cpp support/vorlmisc.h
fails_at companions/vorlmisc/vorlmisc.cpp support/trace.h
fails_at companions/vorlmisc/vorlmisc.cpp companions/vorlinfo/vorlinfo.h
passes_at modules/vorlcore/vorlcore.cpp support/trace.h
fails_at modules/vorlcore/vorlcore.cpp service/helperpipe.h
fails_at modules/vorlcore/vorlcore.cpp modules/vorlupd/update.h
passes_at samples/helper/main.cpp service/helperpipe.h
fails_at samples/helper/main.cpp service/ntservc.h
fails_at tools/tool.cpp agent/vorlsvc.h
fails_at tools/tool.cpp tests/support/journal.h
fails_at service/vorlfun.cpp ../agent/vorlsvc.h
