#!/usr/bin/env bash
# Compares the dynamic symbols the built library defines with the checked-in
# list next to this script, and fails on any difference: a symbol that
# appears is new binary interface, one that disappears breaks hosts and
# modules built against the old one.
#
# Usage: check_exported_symbols.sh LIBRARY
set -euo pipefail
library=$1
expected=$(dirname "$0")/exported_symbols.txt
actual=$(nm -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort)
if ! diff -u <(grep -v '^#' "$expected") <(echo "$actual"); then
  echo "FAIL: the symbols $library exports differ from $expected (- missing, + new)." >&2
  echo "A symbol is exported only when include/kt/ marks it KT_EXPORT and" \
       "cmake/kt_DefaultManager.map lets it through. If the change is meant, update the" \
       "list: nm -D --defined-only $library | awk '{ print \$3 }' | LC_ALL=C sort" \
       ">> $expected (after its comment lines)." >&2
  exit 1
fi
echo "$(wc -l <<<"$actual") exported symbols, as listed"
