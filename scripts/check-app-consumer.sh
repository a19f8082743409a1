#!/usr/bin/env bash
# Builds the people counter on its own against an installed library, which proves that it uses
# only the library's public interface, and runs it over a few frames of the sample clip.
#
#   scripts/check-app-consumer.sh <installation prefix> <folder of the forged models> <build folder>
set -euo pipefail
cd "$(dirname "$0")/.."
PREFIX="$(realpath "$1")"
MODELS="$(realpath "$2")"
BUILD="$3"

rm -rf "$BUILD"
cmake -S apps/people_counter -B "$BUILD" -DCMAKE_PREFIX_PATH="$PREFIX" > /dev/null
cmake --build "$BUILD" -j "$(nproc)"
STEMLIB_SAMPLE_DATA_DIR="$(./scripts/fetch-sample-data.sh --print)" \
    LD_LIBRARY_PATH="$PREFIX/lib" "$BUILD/people_counter" --fast --frames 10 --no-web --quiet \
    --out "$BUILD/run" --model "$MODELS/posenet_mobilenet_int8_481x353.tflite" > /dev/null
test -s "$BUILD/run/snapshot.png"
echo "check-app-consumer: people_counter built against $PREFIX and run"
