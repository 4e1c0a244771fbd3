#!/bin/sh
# Installs the build (with --deb: unpacks its Debian packages, whose tools then run from there) into
# a temporary prefix, checks the shared object's SONAME and exported symbols, then builds and runs a
# consumer against the prefix through find_package and through pkg-config.
# Usage: run_install_test.sh [--deb] BUILD_DIR CONSUMER_SOURCE_DIR CXX [EXTRA_CXX_FLAGS]
set -eu
deb=false
if [ "${1:-}" = "--deb" ]; then
  deb=true
  shift
  # ctest counts 77 as skipped: without dpkg-deb there is nothing to unpack with.
  command -v dpkg-deb >/dev/null 2>&1 || { echo "package test: dpkg-deb is absent"; exit 77; }
fi
build=$1
consumer_src=$2
cxx=$3
flags=${4:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }
# Runs a command with its output kept in a log that is shown only when it fails.
quiet() {
  log=$1 message=$2
  shift 2
  "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "$message"; }
}

prefix=$work/prefix
if $deb; then
  (cd "$build" && quiet "$work/cpack.log" "cpack failed" cpack -G DEB -B "$work/packages")
  for p in libhdscmd1 libhdscmd-dev hdscmd-tools; do
    file=$(find "$work/packages" -maxdepth 1 -name "${p}_1.0.0_*.deb" | head -n 1)
    [ -n "$file" ] || fail "no package $p"
    dpkg-deb -x "$file" "$work/root"
  done
  dpkg-deb -f "$work/packages"/hdscmd-tools_*.deb Depends | grep -q 'libhdscmd1 (= 1.0.0)' ||
    fail "the tools package does not depend on this library package"
  prefix=$work/root/usr
  grep -q '^\.SH HDSCTL SUPPORT-BUNDLE' "$prefix/share/man/man1/hdsctl.1" ||
    fail "the man page lacks the subcommands"
else
  quiet "$work/install.log" "cmake --install failed" cmake --install "$build" --prefix "$prefix"
fi

lib=$(find "$prefix" -name 'libhdscmd.so' | head -n 1)
[ -n "$lib" ] || fail "libhdscmd.so not installed"
libdir=$(dirname "$lib")
# Only the API is installed, and each header stands on its own: a caller may include any one first.
if find "$prefix/include/hds" -path '*internal*' | grep .; then
  fail "internal headers are installed (above)"
fi
for header in $(cd "$prefix/include" && find hds -name '*.h'); do
  # shellcheck disable=SC2086
  printf '#include "%s"\n' "$header" | "$cxx" -std=c++17 $flags -fsyntax-only -Wall -Werror \
    -I "$prefix/include" -x c++ - || fail "$header does not compile on its own"
done

soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = "libhdscmd.so.1" ] || fail "SONAME is '$soname', expected libhdscmd.so.1"
[ -L "$libdir/libhdscmd.so.1" ] || fail "no libhdscmd.so.1 link"

# Only the public API may be exported: no internal helpers of the library.
nm -D --defined-only -C "$lib" >"$work/symbols"
grep -q 'CommandHandler::executeCommand' "$work/symbols" || fail "public API not exported"
if grep -E 'hds::|anonymous namespace|ShellArgv|VersionQuad' "$work/symbols"; then
  fail "internal symbols are exported (above)"
fi

# The consumer runs in a private environment: nothing touches /etc, /run/lock or /var/tmp.
export HDS_LOCK_DIR="$work/lock" HDS_TEMP_DIR="$work/tmp" HDS_HORCM_DIR="$work/horcm/"
export HDS_SETTINGS_FILE="$work/settings.conf" HDS_CLIENT_NAME=consumer
printf '[iHarbor]\nsVTHDSHorcmDirectory=%s\n' "$work/no-cci" >"$HDS_SETTINGS_FILE"

quiet "$work/configure.log" "find_package(hdscmd) consumer did not configure" \
  cmake -S "$consumer_src/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags"
quiet "$work/build.log" "find_package(hdscmd) consumer did not build" \
  cmake --build "$work/cmake-build"
ldd "$work/cmake-build/consumer" | grep -q "$libdir/libhdscmd.so.1" ||
  fail "find_package consumer is not linked to the installed library"
"$work/cmake-build/consumer" || fail "find_package consumer failed"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046,SC2086
"$cxx" -std=c++17 $flags -o "$work/pc-consumer" "$consumer_src/consumer/consumer.cpp" \
  $(pkg-config --cflags --libs hdscmd) -Wl,-rpath,"$libdir" || fail "pkg-config consumer did not build"
"$work/pc-consumer" || fail "pkg-config consumer failed"

if $deb; then
  # The packaged hdsctl finds the packaged library and ccisim beside it, not the build's.
  loaded=$(ldd "$prefix/bin/hdsctl" | awk '/libhdscmd/ {print $3}')
  [ "$(readlink -f "$loaded")" = "$(readlink -f "$libdir/libhdscmd.so.1")" ] ||
    fail "the packaged hdsctl loads '$loaded', not the packaged library"
  quiet "$work/demo.log" "hdsctl demo failed from the packages" \
    env TMPDIR="$work" "$prefix/bin/hdsctl" demo --pvols 2 --dir "$work/demo"
fi
echo "install test: ok"
