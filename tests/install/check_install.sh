#!/usr/bin/env bash
# check_install.sh BUILD WORK CC LIBDIR: installs a finished build below WORK, then moves it, builds the consumer against it in each way
# that is documented, and runs every program that comes out.
set -euo pipefail
build=$1 work=$2 cc=$3 libdir=$4
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/prefix"  # nothing that was installed may remember where
prefix=$work/prefix
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig

says() {  # says NAME PROGRAM KIND: it is linked in the way it is named after, and runs
  local kind=static
  if readelf -d "$2" | grep -q 'NEEDED.*libqlk\.so\.1'; then kind=shared; fi
  if [ "$kind" = static ] && readelf -d "$2" | grep -q 'NEEDED.*libwarbler'; then kind=half-static; fi
  [ "$kind" = "$3" ] || { echo "$1: the program is linked $kind"; exit 1; }
  LD_LIBRARY_PATH=$prefix/$libdir "$2" || { echo "$1: the program failed"; exit 1; }
  echo "$1: built and ran"
}

warnings=(-std=c11 -Wall -Wextra -Wpedantic -Werror)
for library in libqlk libwarbler; do
  [ "$(pkg-config --modversion "$library")" = 1.0.0 ] || { echo "$library: wrong version"; exit 1; }
done
# shellcheck disable=SC2046  # pkg-config prints several words
"$cc" "${warnings[@]}" $(pkg-config --cflags libqlk) "$here/consumer/consumer.c" -o "$work/pc-shared" $(pkg-config --libs libqlk)
says "pkg-config, shared" "$work/pc-shared" shared
# shellcheck disable=SC2046
"$cc" "${warnings[@]}" $(pkg-config --cflags libqlk) "$here/consumer/consumer.c" -o "$work/pc-static" \
  $(pkg-config --static --libs libqlk | sed -e 's/-lqlk/-l:libqlk.a/g' -e 's/-lwarbler/-l:libwarbler.a/g')
says "pkg-config, static" "$work/pc-static" static

cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" >"$work/consumer.log"
cmake --build "$work/consumer" >>"$work/consumer.log"
says "find_package, shared" "$work/consumer/consumer_shared" shared
says "find_package, static" "$work/consumer/consumer_static" static
