#!/usr/bin/env bash
# check_exports.sh LIBRARY INCLUDE_DIR NM READELF
# The library's SONAME is libtarvikel.so.1 and it exports exactly the names
# that the public headers declare with KEL_API, no more and no fewer.
set -euo pipefail
lib=$1 include=$2 nm=${3:-nm} readelf=${4:-readelf}
status=0
soname=$("$readelf" -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [ "$soname" != "libtarvikel.so.1" ]; then
  echo "SONAME is '$soname', not libtarvikel.so.1"; status=1
fi
# AddressSanitizer adds an __odr_asan.<name> beside each exported variable.
actual=$("$nm" -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^__odr_asan\.' | sort -u)
# The name is the last identifier before the first "(", "[" or ";".
wanted=$(grep -h '^KEL_API ' "$include"/*.h |
  sed -E 's/[[(;].*//; s/.*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*$/\1/' | sort -u)
extra=$(comm -23 <(echo "$actual") <(echo "$wanted"))
missing=$(comm -13 <(echo "$actual") <(echo "$wanted"))
if [ -n "$extra" ]; then echo "exported but not declared:"; echo "$extra"; status=1; fi
if [ -n "$missing" ]; then echo "declared but not exported:"; echo "$missing"; status=1; fi
[ $status -eq 0 ] && echo "$(echo "$actual" | wc -l) names exported, SONAME $soname"
exit $status
