#!/usr/bin/env bash
# check-includes.sh [FOLDER]: fails on an include in a forbidden direction (docs/architecture.md) in
# the sources below FOLDER, the repository's root unless told otherwise.
set -eu
cd "${1:-$(dirname "$0")/..}"

# What a folder may include besides itself. An entry that ends with a slash stands for all below it.
allowed() { # FILE
  case $1 in
    support/*) ;;
    service/*) echo support/ ;;
    agent/*) echo service/ support/ ;;
    identity/*) echo support/ ;;
    # One reader of configuration files for the program and its libraries.
    app/*) echo agent/ identity/ service/ support/ companions/common/ini_file.h ;;
    # Another maker's library may stand in each one's place: the contracts, and what is compiled in.
    companions/common/*) echo $header_only ;;
    companions/vlevtlog/*) echo companions/common/ support/vlevtlog.h $header_only ;;
    companions/vorlinfo/*) echo support/vorlinfo.h $header_only ;;
    companions/vorlmisc/*)
      echo companions/common/ companions/vlevtlog/trace_control.h support/vlevtlog.h \
        support/vorlmisc.h $header_only
      ;;
    modules/*) echo support/ ;;
    samples/helper/*) echo service/helperpipe.h support/ ;;
    tools/vorlsetup/*) echo companions/common/ $header_only ;;
    tools/*) echo companions/common/ identity/ service/ support/ ;;
  esac
}
header_only="support/folder.h support/handle.h support/lasterror.h support/procaddress.h support/stackguard.h \
  support/windows_api.h"

# Folders of one product each know themselves.
own() { # FILE
  case $1 in
    companions/* | modules/* | samples/* | tools/*) echo "$(cut -d/ -f1,2 <<<"$1")/" ;;
    *) echo "${1%%/*}/" ;;
  esac
}

status=0
while IFS=: read -r file line include; do
  include=${include#*\"}
  include=${include%\"*}
  for entry in $(own "$file") $(allowed "$file"); do
    case $entry in
      */) [[ $include == "$entry"* ]] && continue 2 ;;
      *) [[ $include == "$entry" ]] && continue 2 ;;
    esac
  done
  echo "$file:$line: may not include $include" >&2
  status=1
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' --include='*.h' --include='*.cpp' \
  app service agent identity support companions modules samples tools)
exit $status
