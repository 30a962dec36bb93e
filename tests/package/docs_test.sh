#!/usr/bin/env bash
# Reads the commands out of every document and runs them as they are written: those of Linux in a copy
# of the sources, those that Wine can run in a Wine of its own, beside the package. What needs Windows
# is counted. CONTRIBUTING.md says how a block is marked.
set -euo pipefail
. cmake/environment.sh

documents=(README.md CONTRIBUTING.md CHANGELOG.md docs/*.md tests/README.md)
copy=build/second-dist/sources # dist_test.sh has built it
work=$PWD/build/docs-test

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

cleanup() { WINEPREFIX=$work/wine cmake/wine-server.sh stop >/dev/null 2>&1 || true; }
trap cleanup EXIT

# blocks: each fenced block of all documents as a file "NUMBER" with its commands, and a line "NUMBER
# DOCUMENT:LINE WORDS" in the list.
rm -rf "$work/blocks" "$work/list"
mkdir -p "$work/blocks"
for document in "${documents[@]}"; do
  [ -f "$document" ] || continue
  awk -v folder="$work/blocks" -v list="$work/list" -v document="$document" '
    /^ *```/ && !inside {
      inside = 1; words = $0; sub(/^ *```/, "", words)
      file = document ":" FNR; gsub(/\//, "_", file)
      print file " " document ":" FNR " " words >>list
      printf "" >(folder "/" file)
      next
    }
    /^ *```/ { inside = 0; close(folder "/" file); next }
    inside { print >(folder "/" file) }' "$document"
done

if [ ! -d "$copy" ]; then
  mkdir -p "$copy"
  tar -c --exclude='./build*' --exclude=./.git . | tar -x -C "$copy"
fi

ran=0 under_wine=0 windows=0 elsewhere=0
while read -r file place words; do
  block=$work/blocks/$file
  commands=$(grep -c '[^[:space:]]' "$block" || true)
  case $words in
    '') fail "$place: the block does not say what it is" ;;
    sh)
      echo "-- $place"
      (cd "$copy" && bash -euo pipefail "$block" </dev/null >"$work/output.txt" 2>&1) ||
        fail "$place: $(tail -n 20 "$work/output.txt")"
      ran=$((ran + commands))
      ;;
    'sh elsewhere') elsewhere=$((elsewhere + commands)) ;;
    'cmd wine')
      echo "-- $place (Wine)"
      if [ "$under_wine" -eq 0 ]; then
        mkdir -p "$work/downloads"
        cp "$copy"/build/dist/*.msi "$work/downloads"
        WINEPREFIX=$work/wine cmake/wine-server.sh start </dev/null >/dev/null 2>&1
      fi
      repository=$PWD
      while IFS= read -r command; do
        # What the command prompt does with it: words, and quotes around those with blanks.
        eval "words=(${command//\\/\\\\})"
        (cd "$work/downloads" && WINEPREFIX=$work/wine timeout 300 "$repository/cmake/wine.sh" \
          "${words[@]}" </dev/null >"$work/output.txt" 2>&1) ||
          fail "$place: $command: $(tail -n 20 "$work/output.txt")"
        under_wine=$((under_wine + 1))
      done < <(tr -d '\r' <"$block" | grep '[^[:space:]]')
      ;;
    cmd* | powershell*) windows=$((windows + commands)) ;;
  esac
done <"$work/list"

# The documents must not lose their commands to a changed mark.
[ "$ran" -ge 5 ] && [ "$under_wine" -ge 2 ] || fail "only $ran and $under_wine commands have run"
echo "$ran lines ran on Linux and $under_wine under Wine; not run here: $windows that need Windows," \
  "$elsewhere that another test runs or that need the reader's own files"
