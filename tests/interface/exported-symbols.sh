#!/usr/bin/env bash
# exported-symbols.sh NM LIBRARY HEADER MARK FUNCTION: fails unless the library exports the functions of the header, which
# the mark stands before, and nothing else. The function is one of them.
set -euo pipefail
declared=$(tr '\n' ' ' <"$3" | grep -oE "$4 [^;(]*\bzevrant\w+\(" | grep -oE '\w+\($' | tr -d '(' | sort)
grep -qx "$5" <<< "$declared" || { echo "the header is read wrongly"; exit 1; }
diff <(echo "$declared") <("$1" --dynamic --defined-only "$2" | awk '{ print $NF }' | sort)
