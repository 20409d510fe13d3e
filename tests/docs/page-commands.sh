#!/usr/bin/env bash
# page-commands.sh PROGRAMS SONG COMMANDS: runs the commands of a page as they stand there, in a folder of their own that
# holds song.flac, song.mp3, talk.wav and a folder album, with the programs of this folder in the path and no models but
# those beside them.
set -euo pipefail
programs=$1 song=$2 commands=$3

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/album"
cp "$song" "$folder/song.flac"
cp "$song" "$folder/album/first.flac"
cp "$song" "$folder/album/second.flac"
cd "$folder"
unset ZEVRANT_MODEL_PATH
for copy in song.mp3 talk.wav; do "$programs/zevrant" process song.flac -m center-sides -o $copy --quiet; done
PATH=$programs:$PATH bash -euo pipefail "$commands"
ls -R
