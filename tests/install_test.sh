#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds a small consumer
# against it twice: through pkg-config and through find_package. The consumer
# is built by the compiler and flags of the library's own build (so a 32-bit
# build is checked by a 32-bit consumer), and each program must be of the
# library's ELF class.
set -euo pipefail
build=$1
consumer=$2
cc=${3:-cc}
cflags=${4:-}
work=$(mktemp -d /tmp/fhcore-install-XXXXXX)
trap 'rm -rf "$work"' EXIT

elfClass() { readelf -h "$1" | sed -n 's/^ *Class: *//p'; }

cmake --install "$build" --prefix "$work/prefix" >/dev/null
pcdir=$(dirname "$(find "$work/prefix" -name fhcore.pc)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir fhcore)
class=$(elfClass "$libdir/libfhcore.so")

# shellcheck disable=SC2086 # the flags are words
"$cc" $cflags -Wall -Werror -o "$work/by-pkgconfig" "$consumer/consumer.c" \
    $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs fhcore)
LD_LIBRARY_PATH=$libdir "$work/by-pkgconfig"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-build/consumer"

for program in "$work/by-pkgconfig" "$work/cmake-build/consumer"; do
    [ "$(elfClass "$program")" = "$class" ] || { echo "$program is $(elfClass "$program"), the library $class"; exit 1; }
done

soname=$(readelf -d "$libdir/libfhcore.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "libfhcore.so.1" ] || { echo "SONAME is '$soname'"; exit 1; }
echo "install test passed ($class)"
