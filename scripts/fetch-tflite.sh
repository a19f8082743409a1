#!/usr/bin/env bash
# Fetches the TensorFlow Lite 2.9 C library and its C API headers, the engine of the host inference
# service. No Debian package ships it; the npm package tfjs-tflite-node@0.0.2 (Apache-2.0) carries
# it prebuilt for linux x86-64 and arm64. The tarball's checksum is verified, and only the headers
# and the library for this machine's architecture are kept, in a cache outside the source tree:
#
#   $STEMLIB_TFLITE_DIR, else ${XDG_CACHE_HOME:-$HOME/.cache}/stemlib/tflite-2.9
#     include/tensorflow/lite/c/*.h
#     lib/libtensorflowlite_c.so
#
# The build (cmake/StemlibTFLite.cmake) looks in the same place. Quick when already present.
#
# `scripts/fetch-tflite.sh --arch arm64` (or amd64) fetches another architecture's library, for a
# cross build, into ${XDG_CACHE_HOME:-$HOME/.cache}/stemlib/tflite-2.9-<arch> (or
# $STEMLIB_TFLITE_DIR); cmake/aarch64-linux-gnu.cmake looks there.
set -euo pipefail

PACKAGE="tfjs-tflite-node@0.0.2"
TARBALL="tfjs-tflite-node-0.0.2.tgz"
SHA256="3be1632328a76a2475e5b6833253763c802c859433becb4d879ee1860e3b5284"

CACHE_ROOT="${XDG_CACHE_HOME:-$HOME/.cache}"
DEST="${STEMLIB_TFLITE_DIR:-$CACHE_ROOT/stemlib/tflite-2.9}"

ARCH="$(uname -m)"
if [ "${1:-}" = "--arch" ] && [ -n "${2:-}" ]; then
    ARCH="$2"
    DEST="${STEMLIB_TFLITE_DIR:-$CACHE_ROOT/stemlib/tflite-2.9-$ARCH}"
fi

case "$ARCH" in
    x86_64 | amd64) ARCH_DIR="linux_amd64" ;;
    aarch64 | arm64) ARCH_DIR="linux_arm64" ;;
    *)
        echo "fetch-tflite: no prebuilt TensorFlow Lite library for $ARCH" >&2
        exit 1
        ;;
esac

STAMP="$DEST/.complete"
if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$SHA256 $ARCH_DIR" ] &&
    [ -f "$DEST/lib/libtensorflowlite_c.so" ] &&
    [ -f "$DEST/include/tensorflow/lite/c/c_api.h" ]; then
    echo "fetch-tflite: TensorFlow Lite present in $DEST"
    exit 0
fi

if ! command -v npm > /dev/null; then
    SUDO=""
    if [ "$(id -u)" -ne 0 ]; then
        SUDO="sudo"
    fi
    echo "fetch-tflite: installing npm"
    $SUDO apt-get update -q
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends npm
fi

WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT

echo "fetch-tflite: fetching $PACKAGE"
(cd "$WORK" && npm pack "$PACKAGE" --ignore-scripts --silent > /dev/null)
if [ ! -f "$WORK/$TARBALL" ]; then
    echo "fetch-tflite: npm pack did not produce $TARBALL" >&2
    exit 1
fi
ACTUAL="$(sha256sum "$WORK/$TARBALL" | cut -d' ' -f1)"
if [ "$ACTUAL" != "$SHA256" ]; then
    echo "fetch-tflite: checksum mismatch for $TARBALL: expected $SHA256, got $ACTUAL" >&2
    exit 1
fi

tar -xzf "$WORK/$TARBALL" -C "$WORK" package/cc_deps/include \
    "package/cc_deps/$ARCH_DIR/libtensorflowlite_c.so"

# Replace any earlier, incomplete copy in one step.
STAGE="$DEST.partial"
rm -rf "$STAGE"
mkdir -p "$STAGE/lib"
cp -R "$WORK/package/cc_deps/include" "$STAGE/include"
cp "$WORK/package/cc_deps/$ARCH_DIR/libtensorflowlite_c.so" "$STAGE/lib/"
echo "$SHA256 $ARCH_DIR" > "$STAGE/.complete"
rm -rf "$DEST"
mkdir -p "$(dirname "$DEST")"
mv "$STAGE" "$DEST"
echo "fetch-tflite: TensorFlow Lite installed in $DEST"
