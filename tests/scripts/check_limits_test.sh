#!/usr/bin/env bash
# Shows that cmake/check-limits.sh lets the documents pass, and names a limit that the sources or the
# table have in another way.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
"$root/cmake/check-limits.sh"

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$root"
cp -r --parents docs/configuration.md app agent service identity support companions modules "$folder"
cd "$folder"

# fails_with FILE FROM TO SAID: with TO in the place of FROM in the FILE the check fails and says so.
fails_with() {
  cp "$1" kept
  sed -i "s/$2/$3/" "$1"
  if cmp -s "$1" kept || "$root/cmake/check-limits.sh" "$folder" 2>said; then
    echo "$1 may say $3" >&2
    exit 1
  fi
  grep -qF "$4" said || {
    cat said >&2
    exit 1
  }
  mv kept "$1"
}

"$root/cmake/check-limits.sh" "$folder"
fails_with docs/configuration.md '| 246 characters' '| 247 characters' \
  '247, but kLongestFolder in companions/common/folders.h is 246'
fails_with companions/common/folders.h 'MAX_PATH - 1 - 13' 'MAX_PATH - 1 - 14' \
  '246, but kLongestFolder in companions/common/folders.h is 245'
fails_with modules/vorlupd/journal.h 'std::size_t{64}' 'std::size_t{32}' \
  '67108864, but kLargestJournalSize in modules/vorlupd/journal.h is 33554432'
fails_with support/vorlmisc.h 'char Text3\[40\]' 'char Text3[41]' \
  '39, but Text3 - 1 in support/vorlmisc.h is 40'
fails_with companions/vlevtlog/trace_options.h 'kMostFiles = 1000' 'kMostFiles = 999' \
  '1024000, but kMostFiles * kLargestFileSizeKb / 1024 in'
fails_with service/ntservc.h 'kServiceNameSize' 'kOtherSize' \
  '63, but kServiceNameSize - 1 in service/ntservc.h is unknown'
fails_with docs/configuration.md '^## Limits' '## Other' 'only 0 limits'
