#!/usr/bin/env bash
# What the shared object promises as a file, read with binutils:
#   binary.sh exports LIB LIST   its defined dynamic symbols are the names in LIST
#   binary.sh needed LIB         it needs the C library and nothing else
#   binary.sh runtime LIB        it calls nothing of the C++ runtime, whoever might provide it
#   binary.sh soname LIB NAME    the loader knows it as NAME
#   binary.sh hardened LIB       relocations are read-only once bound, the stack is not executable
set -euo pipefail
export LC_ALL=C
check=$1 lib=$2

same() { # same WHAT WANTED FOUND
    [[ $2 == "$3" ]] && return
    echo "$1 of $lib: - wanted, + found"
    diff <(echo "$2") <(echo "$3") | sed -n 's/^</-/p; s/^>/+/p'
    exit 1
}
dynamic() { # dynamic TAG: the bracketed values of a tag of the dynamic section
    readelf --wide --dynamic "$lib" | sed -n "s/.*($1).*\[\(.*\)\]/\1/p"
}

case $check in
exports)
    # The version node (type A) is no name of the interface.
    same exports "$(sort "$3")" \
        "$(nm --dynamic --defined-only "$lib" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort)"
    sort --check --unique "$3" ;;
needed)
    # The loader is a part of the C library, which some machines need by name.
    same NEEDED libc.so.6 "$(dynamic NEEDED | grep -v '^ld-linux')" ;;
runtime)
    # __cxa_finalize belongs to the C library: the start files ask for it.
    same "runtime symbols" "" "$(nm --dynamic --undefined-only "$lib" | awk '{ print $2 }' |
        sed 's/@.*//' | grep -E '^_Z|^__cxa|^__gxx|^_Unwind' | grep -vx __cxa_finalize || true)" ;;
soname) same soname "$3" "$(dynamic SONAME)" ;;
hardened)
    segments=$(readelf --wide --segments "$lib")
    grep -q GNU_RELRO <<<"$segments"
    grep -Eq 'GNU_STACK .* RW +0x' <<<"$segments"
    readelf --wide --dynamic "$lib" | grep -Eq '\(FLAGS(_1)?\).*NOW' ;;
*) echo "binary.sh: no check named $check"; exit 2 ;;
esac
