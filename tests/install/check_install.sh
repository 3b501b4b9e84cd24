#!/usr/bin/env bash
# Installs the build tree into a scratch prefix and checks what a user of
# the prefix gets: the library's soname, a qel command that finds its
# library, and the example host built through find_package and pkg-config.
set -euo pipefail
build=$1 work=$2 libdir=$3 cmake=$4 generator=$5 cxx=$6 objdump=$7 pkg_config=$8
consumer=$9 host=${10}

rm -rf "$work"
prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" > /dev/null
unset LD_LIBRARY_PATH

soname=$("$objdump" -p "$prefix/$libdir/libqel.so.2" | awk '$1 == "SONAME" { print $2 }')
if [ "$soname" != libqel.so.2 ]; then
  echo "libqel.so.2 has SONAME '$soname'"; exit 1
fi
extra=$(find "$prefix" -name '*.a' -o -name 'qel_*' -o -path '*/src/*')
if [ -n "$extra" ]; then
  echo "installed what only the build needs:"; echo "$extra"; exit 1
fi
"$prefix/bin/qel" --help > /dev/null

echo "find_package(qel):"
"$cmake" -S "$consumer" -B "$work/cmake" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$prefix" -DQEL_HOST="$host" > /dev/null
"$cmake" --build "$work/cmake" > /dev/null
"$work/cmake/consumer"
if [ -f "$build/lib/libqel_admin.so.2" ]; then
  "$work/cmake/admin_consumer"
fi

echo "pkg-config qel:"
flags=$(PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" "$pkg_config" --cflags --libs qel)
"$cxx" -std=c++20 "$host" $flags -o "$work/host"
LD_LIBRARY_PATH="$prefix/$libdir" "$work/host"
