#!/usr/bin/env bash
# pkg-config.sh COMPILER PREFIX PROGRAM.c FOLDER: builds the program against the tree in PREFIX with what pkg-config
# says, once with the shared library and once with the archive, and runs both.
set -euo pipefail
compiler=$1 prefix=$2 program=$3 folder=$4

# Only the installed tree: a host needs no development package of ours beside it.
PKG_CONFIG_LIBDIR=$(dirname "$(find "$prefix" -name zevrant.pc)")
export PKG_CONFIG_LIBDIR
read -ra flags < <(pkg-config --cflags zevrant)
read -ra shared < <(pkg-config --libs zevrant)
library=$(pkg-config --variable=libdir zevrant)

"$compiler" -std=c99 -Wall -Wextra -Werror "${flags[@]}" "$program" -o "$folder/outsider-shared" "${shared[@]}"
LD_LIBRARY_PATH=$library "$folder/outsider-shared"

read -ra static < <(pkg-config --libs --static zevrant)
"$compiler" -std=c99 "${flags[@]}" "$program" -o "$folder/outsider-static" "${static[@]/#-lzevrant/-l:libzevrant.a}"
"$folder/outsider-static"

# The soname carries the major version, and the program asks for that name.
version=$(pkg-config --modversion zevrant)
readelf --dynamic "$folder/outsider-shared" | grep -F "[libzevrant.so.${version%%.*}]"
[ -f "$library/libzevrant.so.$version" ]
