#!/usr/bin/env bash
# Builds and runs the whole test suite twice (a normal build with warnings as errors, and a build
# with AddressSanitizer and UndefinedBehaviorSanitizer), checks the formatting, builds a consumer
# project against the installed package, and builds the library for the camera SDK against a
# sysroot made of the host stand-ins. Then the tests of the threaded parts under ThreadSanitizer,
# every fuzz harness for 30 seconds, and the whole suite built for the camera's processor (arm64)
# and run under emulation, with the SDK check for arm64 too. Each step's time is printed at the
# end.
#
# STEMLIB_TEST_STEPS (comma-separated, default all) runs only some steps: format, normal, install,
# sdk, asan, tsan, fuzz, arm64. install and sdk need normal.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT="$(pwd)"
JOBS="$(nproc)"
STEPS=",${STEMLIB_TEST_STEPS:-format,normal,install,sdk,asan,tsan,fuzz,arm64},"

STEP_LINES=()
STEP_NAME=""
STEP_START=0
finish_step() {
    if [ -n "$STEP_NAME" ]; then
        STEP_LINES+=("$(printf '%5d s  %s' $((SECONDS - STEP_START)) "$STEP_NAME")")
    fi
    STEP_NAME=""
}
step() { # name
    finish_step
    STEP_NAME="$1"
    STEP_START=$SECONDS
    echo "== $1"
}
wanted() { [[ "$STEPS" == *",$1,"* ]]; }

# Prints the tests that a ctest run skipped, each with the reason that the test printed.
print_skipped() { # build folder
    local log="$1/Testing/Temporary/LastTest.log"
    [ -f "$log" ] || return 0
    awk '/^[0-9]+\/[0-9]+ Testing: / { test = $3 }
         /: Skipped$/ { reason = 1; next }
         reason && /\[  SKIPPED \]/ { reason = 0; next }
         reason { print "skipped: " test ": " $0 }' "$log"
}

step "dependencies"
./scripts/install-deps.sh

if wanted format; then
    step "formatting"
    ./scripts/check-format.sh
fi

if wanted normal; then
    step "normal build"
    cmake -S . -B build-tests/normal -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTEMLIB_WERROR=ON \
        -DCMAKE_INSTALL_PREFIX="$ROOT/build-tests/prefix"
    cmake --build build-tests/normal -j "$JOBS"
    ctest --test-dir build-tests/normal --output-on-failure -j "$JOBS"
    print_skipped build-tests/normal
    ./build-tests/normal/examples/scene_demo --fast > /dev/null
    # The overlay example draws over a frame of the host camera playing the sample clip, in Thai.
    ./scripts/make-fonts-dir.sh build-tests/fonts > /dev/null
    printf 'channels = 1\nchannel.1.resolutions = 1920x1080\nvideo.input = file:%s/vtest.avi\n' \
        "$(./scripts/fetch-sample-data.sh --print)" > build-tests/vtest-camera.txt
    (cd build-tests && STEMLIB_HOST_CAMERA="$ROOT/build-tests/vtest-camera.txt" \
        ./normal/examples/overlay_demo --lang th --out overlay-th.png > /dev/null)
    test -s build-tests/overlay-th.png
fi

if wanted install; then
    step "installed package and consumer project"
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
    ./scripts/check-app-consumer.sh build-tests/prefix build-tests/normal/models \
        build-tests/people-counter
fi

if wanted sdk; then
    step "camera SDK seam (STEMLIB_PLATFORM=sdk against a sysroot of the host stand-ins)"
    ./scripts/check-sdk-platform.sh build-tests/sdk
fi

if wanted asan; then
    step "sanitizer build"
    cmake -S . -B build-tests/asan -DCMAKE_BUILD_TYPE=Debug -DSTEMLIB_WERROR=ON \
        -DSTEMLIB_SANITIZE=ON -DSTEMLIB_BUILD_BENCHMARKS=OFF
    cmake --build build-tests/asan -j "$JOBS"
    ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1" \
        UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1" \
        ctest --test-dir build-tests/asan --output-on-failure -j "$JOBS"
    ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1" \
        UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1" \
        ./build-tests/asan/examples/scene_demo --fast > /dev/null
fi

if wanted tsan; then
    # The tests listed in tests/threaded-tests.txt (ctest label "threads").
    step "thread sanitizer build (threaded parts)"
    cmake -S . -B build-tests/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTEMLIB_WERROR=ON \
        -DSTEMLIB_TSAN=ON -DSTEMLIB_BUILD_BENCHMARKS=OFF -DSTEMLIB_BUILD_EXAMPLES=OFF
    cmake --build build-tests/tsan -j "$JOBS" --target stemlib_tests
    ctest --test-dir build-tests/tsan -L threads --output-on-failure -j "$JOBS"
fi

if wanted fuzz; then
    step "fuzzing (30 s a harness, AddressSanitizer and UndefinedBehaviorSanitizer)"
    ./scripts/run-fuzzers.sh -t 30 -b build-tests/fuzz
fi

if wanted arm64; then
    # Debian's cross compiler against an arm64 sysroot of Debian's packages (made by
    # install-deps.sh); programs of the build run under qemu-aarch64-static.
    step "arm64 cross build and camera SDK seam"
    cmake -S . -B build-tests/arm64 --toolchain cmake/aarch64-linux-gnu.cmake \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSTEMLIB_WERROR=ON -DSTEMLIB_BUILD_BENCHMARKS=OFF
    cmake --build build-tests/arm64 -j "$JOBS"
    ./scripts/check-sdk-platform.sh --arm64 build-tests/sdk-arm64

    step "arm64 suite under emulation"
    ctest --test-dir build-tests/arm64 --output-on-failure -j "$JOBS"
    print_skipped build-tests/arm64
    qemu-aarch64-static -L "$(./scripts/make-arm64-sysroot.sh --print)" \
        ./build-tests/arm64/examples/scene_demo --fast > /dev/null
fi

finish_step
echo "== step times"
printf '%s\n' "${STEP_LINES[@]}"
echo "== all tests passed"
