#!/usr/bin/env bash
# Builds the library and runs the main job: the scripted scene demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh --no-arm64
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DSTEMLIB_BUILD_TESTS=OFF -DSTEMLIB_BUILD_BENCHMARKS=OFF
cmake --build build -j "$(nproc)" --target scene_demo
./build/examples/scene_demo "$@"
