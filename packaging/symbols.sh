#!/usr/bin/env bash
# symbols.sh [FOLDER]: debug files for the binaries of build/mingw-release/bin, into FOLDER (default:
# build/symbols/files), one NAME.debug each with the build identifier of the binary that it is for.
#
# What ships is not touched: the debug files come from a second build of the same sources, linked
# with debug information, whose loaded bytes are compared with those of the shipped binary.
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/environment.sh

tools=x86_64-w64-mingw32-
shipped=build/mingw-release/bin
tree=build/symbols
out=${1:-$tree/files}

cmake --preset mingw-release >/dev/null
cmake --build --preset mingw-release --target installation | { grep -v '^\[' || true; }
# The diagnosis tool knows the files it is shipped with: those, not the second build's.
cmake --preset mingw-release -B "$tree" -DVORL_SYMBOLS=ON -DBUILD_TESTING=OFF \
  -DVORL_SHIPPED_FOLDER="$PWD/$shipped" --no-warn-unused-cli >/dev/null
cmake --build "$tree" --target installation | { grep -v '^\[' || true; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# sections FILE: name, size and address of each section that is loaded.
sections() {
  "${tools}objdump" -h "$1" | awk '/^ +[0-9]+ / && $2 !~ /^\.debug/ { print $2, $3, $4 }'
}

# take_apart FILE FOLDER: the bytes of the loaded sections.
take_apart() {
  local name size address options=()
  mkdir -p "$2"
  while read -r name size address; do
    [ "$name" = .bss ] || options+=(--dump-section "$name=$2/$name")
  done < <(sections "$1")
  "${tools}objcopy" "${options[@]}" "$1" "$work/ignored"
}

rm -rf "$out"
mkdir -p "$out"
for binary in "$shipped"/*.exe "$shipped"/*.dll; do
  name=${binary##*/}
  if ! diff <(sections "$binary") <(sections "$tree/bin/$name"); then
    echo "$name is laid out otherwise with debug information" >&2
    exit 1
  fi
  take_apart "$binary" "$work/shipped/$name"
  take_apart "$tree/bin/$name" "$work/full/$name"
  diff -r --exclude=.buildid "$work/shipped/$name" "$work/full/$name" || {
    echo "$name has other bytes with debug information" >&2
    exit 1
  }
  # The linker computes the identifier from the whole file, so the second build has one of its own.
  "${tools}objcopy" --preserve-dates --update-section ".buildid=$work/shipped/$name/.buildid" \
    "$tree/bin/$name" "$work/$name"
  "${tools}objcopy" --preserve-dates --only-keep-debug "$work/$name" "$out/$name.debug"
done
packaging/build-id.sh "$shipped"/*.exe "$shipped"/*.dll >"$out/build-identifiers.txt"
echo "$(ls "$out"/*.debug | wc -l) debug files in $out"
