#!/usr/bin/env bash
# pkg-config.sh COMPILER PREFIX PACKAGE PROGRAM.c FOLDER: builds the program against the tree in PREFIX with what
# pkg-config says, once with the shared library and once with the archive, and runs both.
set -euo pipefail
compiler=$1 prefix=$2 package=$3 program=$4 folder=$5/$3
mkdir -p "$folder"
cd "$folder"

# Only the installed tree: a host needs no development package of ours beside it.
PKG_CONFIG_LIBDIR=$(dirname "$(find "$prefix" -name "$package.pc")")
export PKG_CONFIG_LIBDIR
read -ra flags < <(pkg-config --cflags "$package")
read -ra shared < <(pkg-config --libs "$package")
library=$(pkg-config --variable=libdir "$package")

"$compiler" -std=c99 -Wall -Wextra -Werror "${flags[@]}" "$program" -o "$folder/outsider-shared" "${shared[@]}"
LD_LIBRARY_PATH=$library "$folder/outsider-shared" </dev/null

read -ra static < <(pkg-config --libs --static "$package")
"$compiler" -std=c99 "${flags[@]}" "$program" -o "$folder/outsider-static" "${static[@]/#-l$package/-l:lib$package.a}"
ZEVRANT_MODEL_PATH=$prefix/share/zevrant/models "$folder/outsider-static" </dev/null

# The soname carries the major version, and the program asks for that name.
version=$(pkg-config --modversion "$package")
readelf --dynamic "$folder/outsider-shared" | grep -F "[lib$package.so.${version%%.*}]"
[ -f "$library/lib$package.so.$version" ]
