#!/usr/bin/env bash
# lint.sh [FILE...]: the directions of all includes, and that none is there twice; the headers' first
# lines; clang-format, cppcheck, clang and clang-tidy over the product's sources (or FILEs), for the target
# that the product is built for.
set -eu
cd "$(dirname "$0")/.."
. cmake/environment.sh

product=(app service agent identity support companions modules samples tools)

echo "-- includes"
cmake/check-includes.sh
find "${product[@]}" tests bench -name '*.cpp' -o -name '*.h' | xargs awk '
  FNR == 1 { split("", seen) }
  /^#include/ && seen[$0]++ { print FILENAME ":" FNR ": error: " $0 " for the second time"; found = 1 }
  END { exit found }' >&2

echo "-- first lines of the headers"
find "${product[@]}" tests -name '*.h' | sort | while read -r header; do
  head -n 1 "$header" | grep -q '^// ' || {
    echo "$header does not begin with a line that says what it is" >&2
    exit 1
  }
done

# Other versions find and format otherwise; the sources are kept clean with this one.
version=14
if ! clang-tidy --version | grep -q "version $version\."; then
  echo "-- left out: the checks are made with clang $version (Debian 12)"
  exit 0
fi

# The headers of the tools' libraries are laid out there.
[ -d build/mingw-release/tool_headers ] || cmake --preset mingw-release >/dev/null

if [ $# -gt 0 ]; then
  sources=("$@")
else
  mapfile -t sources < <(find "${product[@]}" -name '*.cpp' | sort)
fi

echo "-- clang-format"
find "${product[@]}" tests bench -name '*.cpp' -o -name '*.h' | xargs clang-format --dry-run -Werror

target_options=(-std=c++20 -I. -DWIN32_LEAN_AND_MEAN -DNOMINMAX -D_WIN32_WINNT=0x0601
  -isystem build/mingw-release/tool_headers -DSTRSAFE_NO_DEPRECATE -DVORL_MAJOR_VERSION=\"1\" -DVORL_VERSION=\"1\")

echo "-- cppcheck"
cppcheck -j "$(nproc)" --platform=win64 --library=windows --std=c++20 --language=c++ --inline-suppr \
  --enable=warning,performance,portability --error-exitcode=1 --quiet \
  --suppress=missingIncludeSystem -I . "${target_options[@]:2}" "${sources[@]}"

# The cross compiler's own folders, which clang does not know; clang's headers stand in for GCC's.
mapfile -t folders < <(x86_64-w64-mingw32-g++-posix -E -x c++ -v - </dev/null 2>&1 |
  sed -n '/^#include </,/^End/p' | sed -n 's/^ //p' | xargs realpath |
  grep -v '/include-fixed$')
clang_headers=$(dirname "$(find /usr/lib/llvm-*/lib/clang -name stddef.h | sort -V | tail -n 1)")
system=()
for folder in "${folders[@]}"; do
  case $folder in
    */lib/gcc/*/include) folder=$clang_headers ;;
  esac
  system+=(-isystem "$folder")
done
clang_options=(--target=x86_64-w64-windows-gnu -nostdinc -nostdinc++ "${system[@]}"
  "${target_options[@]}")

# Each folder goes through clang-tidy as one file: most of the time is that for the system's headers, and
# the analyser sees only what stands in the file that it is given. Where a source begins is written to
# build/lint/places.
rm -rf build/lint
mkdir -p build/lint
for folder in $(dirname "${sources[@]}" | sort -u); do
  file=build/lint/${folder//\//.}.cpp
  printf '%s\n' "${sources[@]}" | grep "^$folder/[^/]*$" | xargs awk -v file="$file" '
    FNR == 1 { print file, NR, FILENAME >>"build/lint/places" }
    { print }' >"$file"
done

# The messages on standard input, with the places in the sources themselves.
name_sources() {
  awk 'NR == FNR { begins[$1, ++count[$1]] = $2; source[$1, count[$1]] = $3; next }
    match($0, /^[^ :]*build\/lint\/[^:]*:[0-9]+/) {
      split(substr($0, 1, RLENGTH), place, ":")
      file = substr(place[1], index(place[1], "build/lint/"))
      for (i = count[file]; i > 1 && begins[file, i] > place[2]; --i) {}
      $0 = source[file, i] ":" place[2] - begins[file, i] + 1 substr($0, RLENGTH + 1)
    }
    { print }' build/lint/places -
}

# With a second compiler's warnings, with Visual C++'s extensions. clang-tidy's count of what it left
# out, on standard error, is not kept.
echo "-- clang-tidy"
set -o pipefail
wc -l build/lint/*.cpp | sort -rn | awk '$2 != "total" { print $2 }' |
  xargs -P "$(nproc)" -I{} clang-tidy --quiet --checks='clang-diagnostic-*' {} -- "${clang_options[@]}" \
    -fms-extensions -Wall -Wextra -Wconversion -Wunreachable-code 2>/dev/null | name_sources

# clang-cl needs headers of the Windows SDK; the one header that can be read without goes through it.
echo "-- clang-cl"
"clang++-$version" --driver-mode=cl --target=x86_64-pc-windows-msvc -fsyntax-only -W4 -WX -std:c++20 -EHsc \
  -permissive- -D__STRICT_ANSI__ "${system[@]/#-isystem/-imsvc}" -I. -FI support/trace_format.h \
  -TP /dev/null
