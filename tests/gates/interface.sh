#!/usr/bin/env bash
# The public headers declare, as visible, the names of the export list and no others, and every id of
# a trace record has its row in the table of records.
#   interface.sh INCLUDE_DIR LIST CC
set -euo pipefail
export LC_ALL=C
include=$1 list=$2 cc=$3

# A declaration is what stands between the visibility attribute and the next semicolon or brace; its
# name is the word before the first parenthesis, or the last word where there is none.
for header in "$include"/qvcl/*.h; do
    echo "#include <qvcl/${header##*/}>"
done |
    "$cc" -E -P -x c -std=c11 -I "$include" - | tr '\n' ' ' |
    grep -oE '__attribute__\(\(visibility\("default"\)\)\)[^;{]*' |
    sed -E 's/^__attribute__\(\([^)]*\)\)\)//; s/^([^(]*)\(.*/\1/; s/ *$//; s/.*[ *]//' |
    sort -u | diff --label "$list" --label "public headers" -u0 "$list" -

ids() { grep -oE '\bCL_API_[A-Z_]+' "$include/qvcl/$1" | sort -u; }
ids trace_records.h | diff --label ids --label rows -u0 - <(ids trace_table.h)
