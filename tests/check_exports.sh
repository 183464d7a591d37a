#!/usr/bin/env bash
# The dynamic symbols that the shared object defines must be exactly the
# functions and data that the public headers declare with FHAPI.
set -euo pipefail
library=$1
headers=$2
# AddressSanitizer adds its own symbols (__asan_*, __odr_asan indicators) beside the interface;
# a function bound when the library loads (StrCompare) has the type i.
exported=$(nm -D --defined-only "$library" | awk '$2 ~ /^[TDBRi]$/ && $3 !~ /^__(odr_)?asan/ {print $3}' | sort -u)
declared=$(cat "$headers"/*.h | tr '\n' ' ' | grep -oE 'FHAPI [^;(#]*[ *][A-Za-z_][A-Za-z0-9_]* *[;(]' \
           | sed -E 's/^.*[ *]([A-Za-z_][A-Za-z0-9_]*) *[;(]$/\1/' | sort -u)
if [ "$exported" != "$declared" ]; then
    diff <(echo "$declared") <(echo "$exported") | sed 's/^</declared, not exported:/; s/^>/exported, not declared:/'
    exit 1
fi
echo "$(echo "$exported" | wc -l) symbols exported, all declared"
