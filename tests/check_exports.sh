#!/usr/bin/env bash
# check_exports.sh LIBRARY INCLUDE_DIR NM READELF
# The library's SONAME is libtarvikel.so.1 and it exports exactly the names
# that the public headers declare with KEL_API, no more and no fewer.
set -euo pipefail
lib=$1 include=$2 nm=${3:-nm} readelf=${4:-readelf}
soname='Library soname: [libtarvikel.so.1]'
"$readelf" -d "$lib" | grep -qF "$soname" || { echo "no $soname"; exit 1; }
# A declared name is the last identifier before the first "(", "[" or ";".
declared='s/[[(;].*//; s/.*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*$/\1/'
# AddressSanitizer adds an __odr_asan.<name> beside each exported variable.
# diff shows "<" for a name exported but not declared, ">" for the reverse.
diff <("$nm" -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^__odr_asan\.' | sort -u) \
  <(grep -h '^KEL_API ' "$include"/*.h | sed -E "$declared" | sort -u)
