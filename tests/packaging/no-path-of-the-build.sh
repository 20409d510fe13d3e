#!/usr/bin/env bash
# no-path-of-the-build.sh PREFIX FOLDER...: fails when a file of the installed tree, or the target of a link in it, tells
# one of the folders in which it was built.
set -euo pipefail
prefix=$1
shift

[ -n "$(find "$prefix" -type f -print -quit)" ] || { echo "nothing is installed in $prefix"; exit 1; }
status=0
for folder in "$@"; do
    # Compilers move constant text in pieces of 16 bytes, which need not lie together in the file.
    piece=$folder/
    piece=${piece:0:16}
    if (cd "$prefix" && find .) | grep -qF -e "$piece"; then
        echo "$folder cannot be told from a name that is installed"
    elif grep -rlaF -e "$piece" "$prefix" || find "$prefix" -type l -lname "$piece*" | grep .; then
        echo "tell $piece, the start of $folder"
        status=1
    fi
done
exit "$status"
