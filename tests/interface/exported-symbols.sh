#!/usr/bin/env bash
# exported-symbols.sh NM LIBRARY HEADER: fails unless the library exports the functions of the header and nothing else.
set -euo pipefail
declared=$(grep -oE '^ZEVRANT_EXPORT [^;(]*\bzevrant\w+' "$3" | grep -oE '\w+$' | sort)
grep -qx zevrantCreateProcessor <<< "$declared" || { echo "the header is read wrongly"; exit 1; }
diff <(echo "$declared") <("$1" --dynamic --defined-only "$2" | awk '{ print $NF }' | sort)
