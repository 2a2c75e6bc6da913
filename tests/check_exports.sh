#!/usr/bin/env bash
# check_exports.sh LIBRARY EXPECTED NM READELF
# The library's SONAME is libtarvikel.so.1 and it exports exactly the names
# listed in EXPECTED (one a line, '#' comments), no more and no fewer.
set -euo pipefail
lib=$1 expected=$2 nm=${3:-nm} readelf=${4:-readelf}
status=0
soname=$("$readelf" -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [ "$soname" != "libtarvikel.so.1" ]; then
  echo "SONAME is '$soname', not libtarvikel.so.1"; status=1
fi
# AddressSanitizer adds an __odr_asan.<name> beside each exported variable.
actual=$("$nm" -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^__odr_asan\.' | sort -u)
wanted=$(sed 's/#.*//; /^[[:space:]]*$/d; s/[[:space:]]//g' "$expected" | sort -u)
extra=$(comm -23 <(echo "$actual") <(echo "$wanted"))
missing=$(comm -13 <(echo "$actual") <(echo "$wanted"))
if [ -n "$extra" ]; then echo "exported but not listed:"; echo "$extra"; status=1; fi
if [ -n "$missing" ]; then echo "listed but not exported:"; echo "$missing"; status=1; fi
[ $status -eq 0 ] && echo "$(echo "$actual" | wc -l) names exported, SONAME $soname"
exit $status
