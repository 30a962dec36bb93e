#!/usr/bin/env bash
# check-limits.sh [FOLDER]: fails when a limit in the table of docs/configuration.md is not what its
# constant in the sources says. FOLDER: the repository's root, unless told otherwise.
set -eu
cd "${1:-$(dirname "$0")/..}"
document=docs/configuration.md

# definition NAME FILE...: what NAME is defined as: the value of a constant or member, the size of an
# array.
definition() {
  local name=$1
  shift
  sed -nE "s/^.*\b$name(\[([^]]*)\])?( = ([^;]*))?;.*$/\2\4/p" "$@" | grep -m1 .
}

# value EXPRESSION FILE...: its number, with the names in it looked up in the FILEs.
value() {
  local expression=$1 name
  shift
  while name=$(grep -oE '\b[A-Za-z_][A-Za-z0-9_:]*' <<<"$expression" | head -n 1) && [ -n "$name" ]; do
    case $name in
      MAX_PATH) expression=${expression//$name/260} ;;
      std::size_t) expression=$(sed 's/std::size_t{\([0-9]*\)}/\1/' <<<"$expression") ;;
      *) expression=$(sed "s/\b$name\b/($(definition "$name" "$@" | sed "s/\([0-9]\)'/\1/g"))/" <<<"$expression") ;;
    esac || return 1
    case $expression in *'()'*) return 1 ;; esac
  done
  echo $((expression))
}

count=0
status=0
while IFS='|' read -r _ what limit _ constant files _; do
  stated=$(sed -E 's/^ *([0-9,]+).*$/\1/; s/,//g' <<<"$limit")
  constant=$(sed 's/^[^`]*`//; s/`.*$//' <<<"$constant")
  mapfile -t paths < <(grep -oE '`[^`]+`' <<<"$files" | tr -d '`')
  is=$(value "$constant" "${paths[@]}") || is=unknown
  if [ "$is" != "$stated" ]; then
    echo "$document:$what: $stated, but $constant in ${paths[*]} is $is" >&2
    status=1
  fi
  count=$((count + 1))
done < <(sed -n '/^## Limits/,/^## Updates/p' "$document" | grep '^|' | tail -n +3)

# The table must not lose its rows to another heading.
if [ "$count" -lt 20 ]; then
  echo "$document: only $count limits" >&2
  status=1
fi
exit $status
