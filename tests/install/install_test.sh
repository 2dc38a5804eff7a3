#!/bin/sh
# Installs the build into a temporary prefix and checks what an integrator
# gets: the installed files, the tool, a downstream program built through
# find_package and through pkg-config that writes the same PLY file as
# `sl3d scan`, and the Python package.
#
# usage: install_test.sh CMAKE BUILD_DIR SOURCE_DIR [PYTHON PYTHON_DIR]
set -eu
cmake=$1 build=$2 source=$3 python=${4:-} python_dir=${5:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "install_test: $*" >&2; exit 1; }

"$cmake" --install "$build" --prefix "$prefix" > "$work/install.log"

# The library with its soname links, public headers only, both packages.
lib=$prefix/lib
[ "$(readlink "$lib/libsl3d.so")" = libsl3d.so.0.2 ] || fail "libsl3d.so link"
[ "$(readlink "$lib/libsl3d.so.0.2")" = libsl3d.so.0.2.0 ] || fail "libsl3d.so.0.2 link"
readelf -d "$lib/libsl3d.so.0.2.0" | grep -q 'SONAME.*\[libsl3d.so.0.2\]' || fail "soname"
for file in cmake/sl3d/sl3dConfig.cmake cmake/sl3d/sl3dConfigVersion.cmake \
            cmake/sl3d/sl3dTargets.cmake pkgconfig/sl3d.pc; do
  [ -f "$lib/$file" ] || fail "missing lib/$file"
done
[ -f "$prefix/include/sl3d/version.h" ] || fail "missing include/sl3d/version.h"
unexpected=$(cd "$prefix/include" && find . -type f ! -name '*.h' -o -path '*cli*' -o -name '*test*')
[ -z "$unexpected" ] || fail "not a public header: $unexpected"

"$prefix/bin/sl3d" --version | grep -qx 'sl3d 0.2.0' || fail "sl3d --version"

caps=$work/caps
"$prefix/bin/sl3d" synth --out "$caps" --rectified --width 160 --height 128 > /dev/null
# --no-filter: the downstream programs run the bare generator, without the
# outlier filter the tool adds by default.
"$prefix/bin/sl3d" scan --method phaseshift --images "$caps" --q "$caps/q.yaml" \
  -o "$work/tool.ply" --no-filter > /dev/null

PKG_CONFIG_PATH=$lib/pkgconfig "$cmake" -S "$source/tests/install/downstream" \
  -B "$work/downstream" -DCMAKE_PREFIX_PATH="$prefix" > "$work/configure.log" ||
  { cat "$work/configure.log"; fail "downstream configure"; }
"$cmake" --build "$work/downstream" -j2 > "$work/build.log" ||
  { cat "$work/build.log"; fail "downstream build"; }
# The CMake build records where the library is; pkg-config gives only -L.
"$work/downstream/scan_find_package" "$caps" "$caps/q.yaml" "$work/find_package.ply" \
  > /dev/null || fail "scan_find_package failed"
LD_LIBRARY_PATH=$lib "$work/downstream/scan_pkg_config" "$caps" "$caps/q.yaml" \
  "$work/pkg_config.ply" > /dev/null || fail "scan_pkg_config failed"
for ply in find_package pkg_config; do
  cmp "$work/tool.ply" "$work/$ply.ply" || fail "the $ply build wrote another PLY than sl3d scan"
done

if [ -n "$python" ]; then
  version=$(PYTHONPATH=$prefix/$python_dir "$python" -c 'import sl3d; print(sl3d.__version__)')
  [ "$version" = 0.2.0 ] || fail "installed Python package: '$version'"
fi
echo "install_test: passed"
