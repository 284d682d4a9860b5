#!/usr/bin/env bash
# Every public header compiles alone, as the C and the C++ that it promises, without a warning.
#   headers.sh INCLUDE_DIR CC CXX
set -euo pipefail
include=$1 cc=$2 cxx=$3
strict=(-fsyntax-only -pedantic-errors -Wall -Wextra -Wconversion -Wshadow -Wundef -Werror -I "$include")

failed=0
for header in "$include"/qvcl/*.h; do
    name=qvcl/${header##*/}
    for language in c:c11 c:c17 c++:c++17 c++:c++20; do
        compiler=$cc
        [[ $language == c++:* ]] && compiler=$cxx
        # Twice: the second inclusion must be harmless.
        printf '#include <%s>\n#include <%s>\nextern int not_empty;\n' "$name" "$name" |
            "$compiler" -x "${language%%:*}" "-std=${language##*:}" "${strict[@]}" - || {
            echo "$name does not compile alone as ${language##*:}"
            failed=1
        }
    done
done
# Those of the layer for C++, in both standards, with exceptions and without.
strict=(-fsyntax-only -pedantic-errors -Wall -Wextra -Wconversion -Wold-style-cast -Wshadow -Werror -I "$include")
for header in "$include"/qvcl/*.hpp "$include"/qvcl/cpp/*.hpp; do
    name=${header#"$include"/}
    for options in -std=c++20 '-std=c++2b -fno-exceptions -fno-rtti'; do
        read -ra options <<<"$options"
        printf '#include <%s>\n#include <%s>\nextern int not_empty;\n' "$name" "$name" |
            "$cxx" -x c++ "${options[@]}" "${strict[@]}" - || {
            echo "$name does not compile alone with ${options[*]}"
            failed=1
        }
    done
done
exit $failed
