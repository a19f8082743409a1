#!/usr/bin/env bash
# Builds and runs the whole test suite twice (a normal build with warnings as errors, and a build
# with AddressSanitizer and UndefinedBehaviorSanitizer), checks the formatting, builds a consumer
# project against the installed package, and builds the library for the camera SDK against a
# sysroot made of the host stand-ins.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT="$(pwd)"
JOBS="$(nproc)"

./scripts/install-deps.sh

echo "== formatting"
./scripts/check-format.sh

echo "== normal build"
cmake -S . -B build-tests/normal -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTEMLIB_WERROR=ON \
    -DCMAKE_INSTALL_PREFIX="$ROOT/build-tests/prefix"
cmake --build build-tests/normal -j "$JOBS"
ctest --test-dir build-tests/normal --output-on-failure -j "$JOBS"
./build-tests/normal/examples/scene_demo --fast > /dev/null
# The overlay example draws over a frame of the host camera playing the sample clip, in Thai.
./scripts/make-fonts-dir.sh build-tests/fonts > /dev/null
printf 'channels = 1\nchannel.1.resolutions = 1920x1080\nvideo.input = file:%s/vtest.avi\n' \
    "$(./scripts/fetch-sample-data.sh --print)" > build-tests/vtest-camera.txt
(cd build-tests && STEMLIB_HOST_CAMERA="$ROOT/build-tests/vtest-camera.txt" \
    ./normal/examples/overlay_demo --lang th --out overlay-th.png > /dev/null)
test -s build-tests/overlay-th.png

echo "== installed package and consumer project"
rm -rf build-tests/prefix build-tests/consumer build-tests/consumer-pc
cmake --install build-tests/normal > /dev/null
cmake -S ci/consumer -B build-tests/consumer -DCMAKE_PREFIX_PATH="$ROOT/build-tests/prefix"
cmake --build build-tests/consumer -j "$JOBS"
LD_LIBRARY_PATH="$ROOT/build-tests/prefix/lib" ./build-tests/consumer/consumer
mkdir -p build-tests/consumer-pc
PKG_CONFIG_PATH="$ROOT/build-tests/prefix/lib/pkgconfig" \
    sh -c 'c++ -std=c++17 ci/consumer/main.cpp $(pkg-config --cflags --libs stemlib) -o build-tests/consumer-pc/consumer'
LD_LIBRARY_PATH="$ROOT/build-tests/prefix/lib" ./build-tests/consumer-pc/consumer
# The people counter, built on its own against the installed package, runs a few frames.
./scripts/check-app-consumer.sh build-tests/prefix build-tests/normal/models build-tests/people-counter

echo "== camera SDK seam (STEMLIB_PLATFORM=sdk against a sysroot of the host stand-ins)"
./scripts/check-sdk-platform.sh build-tests/sdk

echo "== sanitizer build"
cmake -S . -B build-tests/asan -DCMAKE_BUILD_TYPE=Debug -DSTEMLIB_WERROR=ON -DSTEMLIB_SANITIZE=ON \
    -DSTEMLIB_BUILD_BENCHMARKS=OFF
cmake --build build-tests/asan -j "$JOBS"
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
ctest --test-dir build-tests/asan --output-on-failure -j "$JOBS"
./build-tests/asan/examples/scene_demo --fast > /dev/null

echo "== all tests passed"
