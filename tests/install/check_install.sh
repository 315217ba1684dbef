#!/usr/bin/env bash
# check_install.sh SOURCES BUILD WORK CC CXX LIBDIR ARCHITECTURE DOMAIN: installs a finished build below WORK, then moves it, builds the consumers
# against it in each way that is documented, and runs every program that comes out. Once more with the libraries in lib/ARCHITECTURE.
set -euo pipefail
sources=$1 build=$2 work=$3 cc=$4 cxx=$5 libdir=$6 architecture=$7 domain=$8
consumers=$sources/tests/install/consumer
strict=(-Wall -Wextra -Wpedantic -Werror)

die() { echo "$*"; exit 1; }

says() {  # says NAME PROGRAM KIND [ARGUMENT...]: it is linked in the way it is named after, and runs
  local name=$1 program=$2 wanted=$3 kind=static needed
  shift 3
  needed=$(readelf -d "$program" | grep NEEDED)
  if grep -q 'libqlk\.so\.1' <<<"$needed"; then kind=shared; elif grep -q 'libwarbler' <<<"$needed"; then kind=half-static; fi
  [ "$kind" = "$wanted" ] || die "$name: the program is linked $kind"
  LD_LIBRARY_PATH=$libraries "$program" "$@" || die "$name: the program failed"
  echo "$name: built and ran"
}

compile() {  # compile CONSUMER ARGUMENT...
  local source=$consumers/$1
  shift
  if [ -e "$source.c" ]; then
    "$cc" -std=c11 "${strict[@]}" "$source.c" "$@"
  else
    "$cxx" -std=c++20 "${strict[@]}" "$source.cpp" "$@"
  fi
}

linked() {  # linked KIND PACKAGE...: what the linker is told
  local kind=$1
  shift
  if [ "$kind" = shared ]; then
    pkg-config --libs "$@"
  else
    pkg-config --static --libs "$@" | sed -E 's/-l(qlk|warbler)( |$)/-l:lib\1.a\2/g'
  fi
}

# use PREFIX LIBDIR CONSUMER...: builds and runs them.
use() {
  local prefix=$1 kind library consumer out=$1.out
  local -a arguments packages
  libraries=$1/$2
  shift 2
  mkdir -p "$out"
  export PKG_CONFIG_PATH=$libraries/pkgconfig
  [ "$(pkg-config --variable=libdir libqlk)" -ef "$libraries" ] || die "pkg-config looks for libqlk elsewhere"
  [ -e "$libraries/cmake/libqlk/libqlk-config.cmake" ] || die "the package files of CMake are not beside the libraries"
  cmake -S "$consumers" -B "$out/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >"$out/log"
  for consumer; do
    packages=(libqlk) arguments=()
    [ "$consumer" != with_testpeer ] || packages=(libqlk-testpeer libqlk) arguments=("$domain")
    for library in "${packages[@]}" libwarbler; do
      [ "$(pkg-config --modversion "$library")" = 1.0.0 ] || die "$library: wrong version"
    done
    for kind in shared static; do
      # shellcheck disable=SC2046  # pkg-config prints several words
      compile "$consumer" $(pkg-config --cflags "${packages[@]}") -o "$out/$consumer" $(linked $kind "${packages[@]}")
      says "pkg-config, $consumer, $kind" "$out/$consumer" $kind "${arguments[@]}"
      cmake --build "$out/cmake" --target "${consumer}_$kind" >>"$out/log" || die "$(cat "$out/log")"
      says "find_package, $consumer, $kind" "$out/cmake/${consumer}_$kind" $kind "${arguments[@]}"
    done
  done
}

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/prefix"  # nothing that was installed may remember where
use "$work/prefix" "$libdir" in_c in_cpp with_testpeer

# Where the libraries are laid is asked when a build is configured. This one takes over what the other has built.
cmake -S "$sources" -B "$work/build" -DCMAKE_INSTALL_LIBDIR="lib/$architecture" -DCMAKE_BUILD_WITH_INSTALL_RPATH=ON -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" -DQLK_BUILD_TESTS=OFF -DQLK_BUILD_TESTPEER=OFF -DQLK_BUILD_GRID=OFF -DQLK_BUILD_TOOLS=OFF \
  -DQLK_BUILD_EXAMPLES=OFF >"$work/configure.log"
cp -a "$build"/src/libqlk.* "$work/build/src/"
cp -a "$build"/warbler/libwarbler.* "$work/build/warbler/"
cmake --install "$work/build" --prefix "$work/second" >>"$work/install.log"
mv "$work/second" "$work/elsewhere"
use "$work/elsewhere" "lib/$architecture" in_c
