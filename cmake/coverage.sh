#!/usr/bin/env bash
# coverage.sh: which lines and branches of the product the unit and end-to-end tests run. Prints a
# table and makes build/coverage/index.html, with the sources. Needs a running Wine (./test starts it).
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/environment.sh

# The programs write their counts by paths of this system, whatever drive they are on.
export GCOV_PREFIX=Z:
cmake/wine-server.sh stop >/dev/null 2>&1 || true
cmake/wine-server.sh start </dev/null >/dev/null 2>&1

tree=build/mingw-coverage
cmake --preset mingw-coverage >/dev/null
cmake --build --preset mingw-coverage --target installation unit_test_programs e2e_test_programs |
  { grep -v '^\[' || true; }
find "$tree" -name '*.gcda' -delete

# What looks at binaries as they ship has nothing to see here. Programs that end at once cannot all write
# their counts and say so among their output, which the end-to-end tests compare.
run_tests() { # LABEL JOBS
  GTEST_FILTER='-VersionFaults.*:IdentityOfStartsInStep.*' \
    ctest --preset mingw-coverage -j "$2" -L "$1" \
    -E '^(library_load_test|image_e2e_test|test_names|wine_start|script\..*)$' |
    { grep -v '^ *Start ' || true; }
}
run_tests unit "$(nproc)"
run_tests e2e 1

rm -rf build/coverage
mkdir -p build/coverage
# Lines that the compiler makes itself are not counted, and of the branches only the decisions.
gcovr --root . --object-directory "$tree" --gcov-executable x86_64-w64-mingw32-gcov-posix \
  --exclude-unreachable-branches \
  --filter '(app|service|agent|identity|support|companions|modules|tools|samples)/' \
  --json build/coverage/counted.json "$tree"
cmake/decisions.py build/coverage/counted.json build/coverage/decisions.json
gcovr --root . --add-tracefile build/coverage/decisions.json --sort-uncovered \
  --html-details build/coverage/index.html --json-summary build/coverage/summary.json \
  --txt build/coverage/summary.txt
cat build/coverage/summary.txt
