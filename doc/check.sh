#!/usr/bin/env bash
# What the documentation promises, in the directory doc/:
#   check.sh lint DIR PAGE...         mandoc finds nothing to warn of in the pages, and those in DIR
#   check.sh agreement DIR LIST       every name in LIST is declared on one page in DIR, and explained
#   check.sh errors DIR LIST          the error list of the headers in DIR is whole and about names in LIST
#   check.sh links                    markdown leads to files that exist, README.md to every page, and
#                                     every public header has a page, and the threats' tests are there
#   check.sh snippets CC INCLUDE LIBRARY FILE...
#                                     C in markdown compiles; a block "```c program" is also run, and
#                                     prints the block that follows it
#   check.sh cpp CXX INCLUDE FILE...  C++ in markdown compiles, behind the header and its namespace
set -euo pipefail
export LC_ALL=C
check=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
complain() {
    echo "$*"
    failed=1
}

case $check in
lint)
    dir=$1
    shift
    mandoc -T lint -W warning "$dir"/qvcl_*.3 "$@" ;;
agreement)
    # A name is declared in the synopsis, and explained where it stands in a tag with text behind.
    for page in "$1"/qvcl_*.3; do
        awk -v page="${page##*/}" '
            /^\.Sh/ { section = $2 }
            section == "SYNOPSIS" && $1 == ".Fo" { print "declared", $2, page }
            section == "SYNOPSIS" && $1 == ".Vt" { gsub(/[*;"]/, ""); print "declared", $NF, page }
            $1 == ".It" { count = 0; next }
            ($1 == ".Fn" || $1 == ".Va") { names[count++] = $2 }
            text && $0 !~ /^\./ { while (count) print "explained", names[--count], page }
            { text = ($1 == ".Xc") }' "$page"
    done >"$work/said"
    awk 'NR == FNR { pages[$1 " " $2] = pages[$1 " " $2] " " $3; ++count[$1 " " $2]; next }
        { for (how = 1; how <= 2; ++how) {
              said = (how == 1 ? "declared " : "explained ") $1
              if (count[said] != 1) print said, "on one page, but on:" (count[said] ? pages[said] : " none")
          } }' "$work/said" "$2" >"$work/wrong"
    [[ ! -s $work/wrong ]] || complain "not $(<"$work/wrong")" ;;
errors)
    perl headers.pl errors "$1"/*.h >"$work/errors"
    [[ -s $work/errors ]] || complain "no errors are documented"
    sort "$work/errors" | uniq -d >"$work/twice"
    [[ ! -s $work/twice ]] || complain "said twice: $(<"$work/twice")"
    # The companion's functions are none of the library's exports.
    perl headers.pl errors "$1"/{channel,kit,nest,recorder,source,starter}.h | cut -d' ' -f1 | cat - "$2" | sort -u >"$work/names"
    cut -d' ' -f1 "$work/errors" | sort -u | comm -23 - "$work/names" >"$work/unknown"
    [[ ! -s $work/unknown ]] || complain "not exported: $(<"$work/unknown")" ;;
links)
    for page in *.md; do
        [[ $page == README.md ]] || grep -qF "]($page" README.md || complain "README.md does not lead to $page"
        while read -r target; do
            [[ -e ${target%%#*} ]] || complain "$page leads to $target"
        done < <(awk '/^```/ { code = !code } !code' "$page" | grep -oE '\]\([^)#:]+[^):]*\)' | sed 's/^](//; s/)$//')
    done
    for header in ../include/qvcl/*.h; do
        grep -qF "<qvcl/${header##*/}>" ./*.md || complain "${header##*/} has no page"
    done
    while IFS=./ read -r suite test; do
        grep -qE "TEST(_F|_P)?\\($suite, $test\\)|^ *fuzz_test\\($test " ../tests/*_test.cpp ../tests/CMakeLists.txt ||
            complain "SECURITY.md names $suite.$test"
    done < <(sed -n '/^|/s/`/\n/gp' ../SECURITY.md | grep -xE 'fuzz/[a-z]+|[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+') ;;
cpp)
    cxx=$1 include=$2
    shift 2
    for file; do
        awk -v base="$work/$(basename "$file" .md)" '
            /^```cpp$/ { out = base "." ++n ".cpp"
                         print "#include <qvcl/qvcl.hpp>\nusing namespace qvcl;\nusing namespace std::chrono_literals;" > out
                         next }
            /^```/ { out = "" }
            out { print > out }' "$file"
    done
    for source in "$work"/*.cpp; do
        "$cxx" -std=c++20 -Wall -Wextra -Wno-unused -Wno-missing-field-initializers -Werror -fsyntax-only -I "$include" "$source" || failed=1
    done ;;
snippets)
    cc=$1 include=$2 library=$3
    shift 3
    for file; do
        # NAME.N.c or, of a program, NAME.N.program.c and the block behind it, NAME.N.output
        awk -v base="$work/$(basename "$file" .md)" -v file="$file" '
            /^```c( program)?$/ { program = NF > 1; out = base "." ++n (program ? ".program" : "") ".c"
                                  print "#line", NR + 1, "\"" file "\"" > out; next }
            /^```[a-z]*$/ && !out && program { out = base "." n ".output"; program = 0; printf "" > out; next }
            /^```/ { out = "" }
            out { print > out }' "$file"
    done
    for source in "$work"/*.c; do
        "$cc" -std=c11 -Wall -Werror -fsyntax-only -I "$include" "$source" || failed=1
    done
    for source in "$work"/*.program.c; do
        [[ -e $source ]] || continue
        program=${source%.c}
        "$cc" -std=c11 -I "$include" "$source" -o "$program" "$library" -Wl,-rpath,"$(dirname "$library")"
        (cd "$work" && timeout 20 "$program" >"$program.printed" 2>&1) || complain "$program failed"
        diff --label documented --label printed -u "${source%.program.c}.output" "$program.printed" || failed=1
    done ;;
*) complain "check.sh: no check named $check" ;;
esac
exit $failed
