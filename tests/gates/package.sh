#!/usr/bin/env bash
# The installed package works from where it was moved to: both components are installed, the tree is
# renamed, and the C program in the package folder is built and run through CMake and through pkg-config.
# It is also built with the sources as a part of it, and what that installs is taken away again.
#   package.sh BUILD_DIR PROGRAM_DIR VERSION CC SOURCE_DIR
set -euo pipefail
build=$1 program=$2 version=$3 cc=$4 source=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" --component runtime >"$work/log"
real=$(find "$work/first" -name "libqvcl.so.$version" -type f)
[[ -n $real && -L ${real%.*.*} ]]
[[ -z $(find "$work/first" -name '*.h' -o -name '*.so' -o -name '*.a' -o -name '*.pc') ]]
cmake --install "$build" --prefix "$work/first" --component development >>"$work/log"
mv "$work/first" "$work/moved"
rm "$build"/install_manifest_*.txt # of what is not there any more
libdir=$(dirname "$(find "$work/moved" -name libqvcl.so)")

# build_program FOLDER OPTION...: through CMake
unset NOTIFY_SOCKET
build_program() {
    if ! { cmake -S "$program" -B "$1" -G Ninja -DCMAKE_C_COMPILER="$cc" "${@:2}" &&
        cmake --build "$1"; } >>"$work/log"; then
        cat "$work/log"
        exit 1
    fi
    "$1/program"
}
build_program "$work/cmake" -DCMAKE_PREFIX_PATH="$work/moved" -DQVCL_VERSION="$version"
build_program "$work/whole" -DQVCL_SOURCE="$source" -DQVCL_INSTALL=ON
cmake --install "$work/whole" --prefix "$work/second" >>"$work/log"
[[ -n $(find "$work/second" -name libqvcl.so) ]]
(cd "$work/whole" && cmake -P "$source/cmake/uninstall.cmake" >>"$work/log" 2>&1)
[[ -z $(find "$work/second" -type f -o -type l -o -name qvcl) ]]

export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $(pkg-config --modversion qvcl) == "$version" ]]
read -ra flags < <(pkg-config --cflags --libs qvcl-starter)
"$cc" -std=c11 "$program/program.c" -o "$work/program" "${flags[@]}"
LD_LIBRARY_PATH=$libdir "$work/program"

# Neither way may bring a C++ runtime into a C program.
for binary in "$work/cmake/program" "$work/whole/program" "$work/program"; do
    readelf --dynamic "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort >"$work/needed"
    printf '%s\n' libc.so.6 "libqvcl.so.${version%%.*}" | diff - "$work/needed"
done
