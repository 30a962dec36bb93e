#!/usr/bin/env bash
# test-names.sh list FOLDER [LABEL]: "PROGRAM SUITE.TEST" for every test in the build folder FOLDER
#                                    (of the programs with that label)
# test-names.sh check FOLDER:        fails when two programs have a test of one name. Tests keep
#                                    files and services under their names, and a name is to say
#                                    which test is meant.
# The programs are asked for their tests; the answers are kept beside them until they are built anew.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$2/tests"

names_of() { # PROGRAM-FILE
  local names=$1.names
  if [ ! "$names" -nt "$1" ]; then
    (cd "$(dirname "$1")" && "$here/wine.sh" --must-speak "$1" --gtest_list_tests) >"$names.new"
    mv "$names.new" "$names"
  fi
  # A suite's line ends with a full stop, its tests follow indented; comments say parameters.
  tr -d '\r' <"$names" | awk -v program="$(basename "$1" .exe)" '
    /^[^ ]+\.( |$)/ { suite = $1; next }
    /^  / { print program, suite $1 }'
}

list() { # [LABEL]
  local label file
  while read -r label file; do
    if [ -e "$file" ] && { [ -z "${1:-}" ] || [ "$1" = "$label" ]; }; then
      names_of "$file"
    fi
  done <programs.txt
}

case $1 in
  list) list "${3:-}" ;;
  check)
    list | sort -u | awk '{ programs[$2] = programs[$2] " " $1; count[$2]++; all++ }
      END {
        for (test in count) if (count[test] > 1) { print test " is in" programs[test]; failed = 1 }
        if (all == 0) { print "there are no tests"; failed = 1 }
        exit failed
      }'
    ;;
esac
