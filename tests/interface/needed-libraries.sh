#!/usr/bin/env bash
# needed-libraries.sh READELF LIBRARY: fails unless the library asks for those of C and C++ alone when it is loaded.
set -euo pipefail
needed=$("$1" --dynamic "$2" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
grep -qE '^libc\.so' <<< "$needed" || { echo "the dynamic section is read wrongly"; exit 1; }
! grep -vE '^(lib(c|m|stdc\+\+|gcc_s)|ld-linux-[a-z0-9_-]+)\.so\.[0-9]+$' <<< "$needed"
