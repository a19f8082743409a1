#!/usr/bin/env bash
# Checks the seam to the camera SDK: lays out the host stand-ins as a camera SDK sysroot (headers,
# shared libraries and pkg-config files of vdostream, axparameter and liblarod), then configures
# and builds the library and the examples with STEMLIB_PLATFORM=sdk against it. The sdk build
# must find everything through pkg-config and never see the host sources.
#
# Usage: scripts/check-sdk-platform.sh [--arm64] [work folder]   (default: build-sdk-check)
#   --arm64  does both builds for the camera's processor (cmake/aarch64-linux-gnu.cmake), with the
#            stand-ins' SDK beside the arm64 sysroot of Debian's packages
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT="$(pwd)"
CROSS=()
if [ "${1:-}" = "--arm64" ]; then
    CROSS=(--toolchain "$ROOT/cmake/aarch64-linux-gnu.cmake")
    shift
fi
WORK="$(realpath -m "${1:-build-sdk-check}")"
JOBS="$(nproc)"
SYSROOT="$WORK/sysroot"

echo "sdk check: building the host stand-ins"
cmake -S . -B "$WORK/host" "${CROSS[@]}" -DCMAKE_BUILD_TYPE=Release -DSTEMLIB_BUILD_TESTS=OFF \
    -DSTEMLIB_BUILD_BENCHMARKS=OFF -DSTEMLIB_BUILD_EXAMPLES=OFF > /dev/null
cmake --build "$WORK/host" -j "$JOBS" --target stemlib-host-platform > /dev/null

echo "sdk check: laying out the sysroot in $SYSROOT"
rm -rf "$SYSROOT"
mkdir -p "$SYSROOT/usr/include/vdo" "$SYSROOT/usr/lib/pkgconfig"
cp platform/host/vdostream/include/*.h "$SYSROOT/usr/include/vdo/"
cp -r platform/host/axparameter/include/axsdk "$SYSROOT/usr/include/"
find platform/host -path '*/include/larod.h' -exec cp {} "$SYSROOT/usr/include/" \;
find "$WORK/host/platform" -maxdepth 3 -name 'lib*.so*' -exec cp -a {} "$SYSROOT/usr/lib/" \;
# The engine that liblarod needs, as an SDK's sysroot carries its libraries' dependencies (a cross
# linker does not follow the run paths of the libraries that it links against).
cp "$(sed -n 's/^STEMLIB_TFLITE_LIBRARY:FILEPATH=//p' "$WORK/host/CMakeCache.txt")" "$SYSROOT/usr/lib/"

write_pc() { # name, description, cflags, libs
    local libs="$4"
    if [ -n "$libs" ] && ! ls "$SYSROOT/usr/lib/lib${libs#-l}.so" > /dev/null 2>&1; then
        libs=""
    fi
    cat > "$SYSROOT/usr/lib/pkgconfig/$1.pc" <<PC
prefix=$PC_PREFIX
includedir=\${prefix}/include
libdir=\${prefix}/lib

Name: $1
Description: $2
Version: 1.0.0
Requires: glib-2.0 gobject-2.0
Cflags: $3
Libs: -L\${libdir} $libs
PC
}
# A cross build's pkg-config prefixes every path with the arm64 sysroot; the prefix is then given
# relative to that sysroot, through pkg-config's own variable for it.
# The cross build also searches this sysroot for the libraries that pkg-config names.
PC_PREFIX="$SYSROOT/usr"
SDK_CROSS=()
if [ "${#CROSS[@]}" -ne 0 ]; then
    ARM64_SYSROOT="$(./scripts/make-arm64-sysroot.sh --print)"
    PC_PREFIX="\${pc_sysrootdir}/$(realpath -m --relative-to="$ARM64_SYSROOT" "$SYSROOT/usr")"
    SDK_CROSS=("${CROSS[@]}" -DSTEMLIB_EXTRA_FIND_ROOTS="$SYSROOT")
fi
write_pc vdostream "Video stream service" "-I\${includedir}/vdo" -lvdostream
write_pc axparameter "Parameter service" "-I\${includedir}" -laxparameter
write_pc liblarod "Inference service" "-I\${includedir}" -llarod

echo "sdk check: configuring and building with STEMLIB_PLATFORM=sdk"
rm -rf "$WORK/sdk"
PKG_CONFIG_PATH="$SYSROOT/usr/lib/pkgconfig" cmake -S . -B "$WORK/sdk" "${SDK_CROSS[@]}" \
    -DSTEMLIB_PLATFORM=sdk \
    -DCMAKE_BUILD_TYPE=Release -DSTEMLIB_WERROR=ON -DSTEMLIB_BUILD_TESTS=OFF \
    -DSTEMLIB_BUILD_BENCHMARKS=OFF -DSTEMLIB_BUILD_EXAMPLES=ON \
    -DCMAKE_SHARED_LINKER_FLAGS="-Wl,-rpath-link,$SYSROOT/usr/lib" \
    -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,$SYSROOT/usr/lib" > /dev/null
if grep -q "$ROOT/platform/host" "$WORK/sdk/compile_commands.json"; then
    echo "sdk check: the sdk build reaches into platform/host" >&2
    exit 1
fi
cmake --build "$WORK/sdk" -j "$JOBS" > /dev/null
echo "sdk check: the library builds against the sysroot"
