#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds a small consumer
# against it twice: through pkg-config and through find_package.
set -euo pipefail
build=$1
consumer=$2
work=$(mktemp -d /tmp/fhcore-install-XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
pcdir=$(dirname "$(find "$work/prefix" -name fhcore.pc)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir fhcore)

cc -Wall -Werror -o "$work/by-pkgconfig" "$consumer/consumer.c" $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs fhcore)
LD_LIBRARY_PATH=$libdir "$work/by-pkgconfig"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-build/consumer"

soname=$(readelf -d "$libdir/libfhcore.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "libfhcore.so.1" ] || { echo "SONAME is '$soname'"; exit 1; }
echo "install test passed"
