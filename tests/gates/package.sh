#!/usr/bin/env bash
# The installed package works from where it was moved to: both components are installed, the tree is
# renamed, and the C program in the package folder is built and run through CMake and through pkg-config.
#   package.sh BUILD_DIR PROGRAM_DIR VERSION CC
set -euo pipefail
build=$1 program=$2 version=$3 cc=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" --component runtime >"$work/log"
real=$(find "$work/first" -name "libqvcl.so.$version" -type f)
[[ -n $real && -L ${real%.*.*} ]]
[[ -z $(find "$work/first" -name '*.h' -o -name '*.so' -o -name '*.a' -o -name '*.pc') ]]
cmake --install "$build" --prefix "$work/first" --component development >>"$work/log"
mv "$work/first" "$work/moved"
libdir=$(dirname "$(find "$work/moved" -name libqvcl.so)")

cmake -S "$program" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" \
    -DQVCL_VERSION="$version" -DCMAKE_C_COMPILER="$cc" >>"$work/log" || { cat "$work/log"; exit 1; }
cmake --build "$work/cmake" >>"$work/log" || { cat "$work/log"; exit 1; }
unset NOTIFY_SOCKET
"$work/cmake/program"

export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $(pkg-config --modversion qvcl) == "$version" ]]
read -ra flags < <(pkg-config --cflags --libs qvcl-starter)
"$cc" -std=c11 "$program/program.c" -o "$work/program" "${flags[@]}"
LD_LIBRARY_PATH=$libdir "$work/program"

# Neither way may bring a C++ runtime into a C program.
for binary in "$work/cmake/program" "$work/program"; do
    readelf --dynamic "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort >"$work/needed"
    printf '%s\n' libc.so.6 libqvcl.so.1 | diff - "$work/needed"
done
