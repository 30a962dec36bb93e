#!/usr/bin/env bash
# Builds the installation from a copy of the sources in another folder and compares every binary with
# build/mingw-release/bin, byte by byte.
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/environment.sh

cmake --preset mingw-release >/dev/null
cmake --build --preset mingw-release --target installation | { grep -v '^\[' || true; }

copy=build/second-build
rm -rf "$copy"
mkdir -p "$copy/sources"
tar -c --exclude='./build*' --exclude=./.git . | tar -x -C "$copy/sources"
(
  cd "$copy/sources"
  cmake --preset mingw-release -DBUILD_TESTING=OFF >/dev/null
  cmake --build --preset mingw-release --target installation | { grep -v '^\[' || true; }
)

for binary in build/mingw-release/bin/*.exe build/mingw-release/bin/*.dll; do
  cmp "$binary" "$copy/sources/build/mingw-release/bin/$(basename "$binary")"
done
echo "$(ls build/mingw-release/bin/*.exe build/mingw-release/bin/*.dll | wc -l) binaries are equal"
