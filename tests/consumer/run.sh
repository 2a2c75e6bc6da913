#!/usr/bin/env bash
# Installs a build into a staging folder, builds the consumer against it once
# with pkg-config and a plain compiler line and once with find_package, and
# runs both, under the emulator when one is given.
#   run.sh build-dir c-compiler toolchain-file|"" [emulator...]
set -euo pipefail
build=$1 cc=$2 toolchain=$3; shift 3
here=$(cd "$(dirname "$0")" && pwd); top=$(cd "$here/../.." && pwd)
stage=$(mktemp -d); trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$build" --prefix /opt/tarvikel >/dev/null
prefix=$stage/opt/tarvikel; libdir=$(dirname "$(find "$prefix" -name libtarvikel.so)")
if grep -rlF -e "$top" -e "$build" "$libdir/pkgconfig" "$libdir/cmake"; then exit 1; fi
PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --cflags --libs tarvikel kelhost >"$stage/flags"
"$cc" -o "$stage/by-pkg-config" "$here/main.c" $(cat "$stage/flags") -Wl,-rpath,"$libdir"
cmake -S "$here" -B "$stage/b" -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$prefix" \
  ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} >/dev/null
cmake --build "$stage/b" >/dev/null
for program in "$stage/by-pkg-config" "$stage/b/consumer"; do
  test "$(TZ=UTC "$@" "$program")" = "09/Sep/2001 01:46:40AM"
done
