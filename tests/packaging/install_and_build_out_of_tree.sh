#!/usr/bin/env bash
# Installs the build into a fresh prefix, then builds one extension module out
# of tree with find_package and another with pkg-config, each against that
# prefix only, and loads each with a checker built the same way.
#
# Usage: install_and_build_out_of_tree.sh BUILD_DIR WORK_DIR LIBDIR CXX BUILD_TYPE
#          CXX_FLAGS EXE_LINKER_FLAGS MODULE_LINKER_FLAGS
# The flags are the build's own, so that sanitizer builds stay consistent.
set -euo pipefail
build=$1 work=$2 libdir=$3 cxx=$4 type=$5 cxxflags=$6 exeflags=$7 moduleflags=$8
here=$(cd "$(dirname "$0")" && pwd)
modules=$here/../modules
prefix=$work/prefix

if ! command -v pkg-config >/dev/null; then
  echo "FAIL: pkg-config is not installed; it is needed to check the installed .pc file" \
       "(apt-get install pkg-config)" >&2
  exit 1
fi

rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# Configures, builds and checks one project: NAME SOURCE MODULE ROW_NAME [cmake args].
build_and_check() {
  local name=$1 source=$2 module=$3 row=$4
  shift 4
  local src=$work/$name
  mkdir -p "$src"
  cp "$here/$name/CMakeLists.txt" "$here/module_check.cpp" "$modules/$source" \
     "$modules/test_extensions.h" "$src/"
  cmake -S "$src" -B "$src/build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE="$type" \
    -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_EXE_LINKER_FLAGS="$exeflags" \
    -DCMAKE_MODULE_LINKER_FLAGS="$moduleflags" "$@" >"$src/configure.log" 2>&1 ||
    { cat "$src/configure.log"; exit 1; }
  cmake --build "$src/build" -j2
  # Intended: a module exports its table under the same name as the library the
  # checker links, so ASan would report the two tables as one symbol defined twice.
  ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_odr_violation=0 \
    "$src/build/module_check" "$src/build/$module" "$row"
}

build_and_check find_package_project test_consumer.cpp libfound_consumer.so TestConsumer \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
found=$(sed -n 's/^ktDefaultManager_DIR:PATH=//p' "$work/find_package_project/build/CMakeCache.txt")
if [ "$found" != "$prefix/$libdir/cmake/ktDefaultManager" ]; then
  echo "FAIL: find_package used $found, not the package installed in $prefix" >&2
  exit 1
fi

PKG_CONFIG_LIBDIR=$prefix/$libdir/pkgconfig PKG_CONFIG_PATH= \
  build_and_check pkg_config_project test_publisher.cpp libpc_publisher.so TestPublisher

# The installed kt-host, run from elsewhere, finds the installed library and
# the example modules beside itself, and compiles in no path of the build.
host=$prefix/bin/kt-host
for file in "$host" "$prefix/share/man/man1/kt-host.1" "$prefix/share/kt/lsan.supp" \
            "$prefix/share/kt/valgrind.supp" "$prefix/$libdir/kt/modules/libkt_console_consumer.so"; do
  [ -f "$file" ] || { echo "FAIL: $file was not installed" >&2; exit 1; }
done
if readelf -p .rodata "$host" | grep -qF "$build"; then
  echo "FAIL: $host holds a path of the build tree $build" >&2
  exit 1
fi
version=$(cd "$work" && "$host" --version)
[ "$version" = "kt-host $(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")" ] ||
  { echo "FAIL: kt-host --version says '$version'" >&2; exit 1; }
watch=$(cd "$work" && KT_SYSTEM_PUBLISHER_PERIOD_MS=100 "$host" watch --seconds 1 2>&1)
if ! grep -q "samples received from [1-9]" <<<"$watch"; then
  echo "FAIL: the installed kt-host watched nothing:" >&2
  echo "$watch" >&2
  exit 1
fi

# Last, kt-host loads the installed library and both out-of-tree modules.
tree=$("$host" --library "$prefix/$libdir/libkt_DefaultManager.so" --no-examples \
  --load "$work/find_package_project/build/libfound_consumer.so" \
  --load "$work/pkg_config_project/build/libpc_publisher.so" tree)
for name in TestConsumer TestPublisher cpu; do
  if ! grep -q "$name" <<<"$tree"; then
    echo "FAIL: kt-host did not file $name from the out-of-tree modules:" >&2
    echo "$tree" >&2
    exit 1
  fi
done
