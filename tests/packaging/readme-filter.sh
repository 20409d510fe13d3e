#!/usr/bin/env bash
# readme-filter.sh PREFIX FILTER.c COMMAND MODEL: builds the filter of the README with the README's command, against the
# tree in PREFIX, and sends two seconds of silence through it.
set -euo pipefail
prefix=$1 source=$2 command=$3 model=$4

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp "$source" "$folder/filter.c"
cd "$folder"
PKG_CONFIG_LIBDIR=$(dirname "$(find "$prefix" -name zevrant.pc)")
export PKG_CONFIG_LIBDIR
bash -euo pipefail "$command"

LD_LIBRARY_PATH=$(pkg-config --variable=libdir zevrant)
export LD_LIBRARY_PATH
head -c 768000 /dev/zero | ./filter "$model" >out.f32
size=$(stat -c %s out.f32)
echo "$size bytes came back"
[ "$size" -gt 600000 ]
cmp -n "$size" out.f32 /dev/zero
