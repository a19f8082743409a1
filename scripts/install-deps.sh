#!/usr/bin/env bash
# Installs every build and test dependency of the library from Debian's packages.
# Quick when everything is present already.
#
# --no-arm64 leaves out the arm64 sysroot and engine of the build for the camera's processor
# (about 1.2 GB, a minute to make), for machines that only build for the PC.
set -euo pipefail

PACKAGES=(
    build-essential cmake pkg-config clang-format
    libopencv-dev libopencv-contrib-dev libopencv-videoio-dev libyuv-dev
    libcairo2-dev libfreetype-dev libglib2.0-dev
    libfcgi-dev libfcgi-bin liburiparser-dev
    libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev
    libflatbuffers-dev flatbuffers-compiler
    fonts-noto-core fonts-wqy-microhei fonts-tlwg-loma-ttf
    opencv-doc
    lighttpd apache2-utils wrk
    clang libclang-rt-14-dev libfuzzer-14-dev
    g++-aarch64-linux-gnu qemu-user-static mmdebstrap
    chromium nlohmann-json3-dev
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi

missing=()
for package in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ "${#missing[@]}" -eq 0 ]; then
    echo "install-deps: all ${#PACKAGES[@]} packages present"
else
    echo "install-deps: installing ${missing[*]}"
    $SUDO apt-get update -q
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# TensorFlow Lite, the engine of the host inference service (no Debian package ships it).
"$(dirname "$0")/fetch-tflite.sh"

# Real photographs and footage for the tests and examples (opencv-doc's data folder).
"$(dirname "$0")/fetch-sample-data.sh"

# The published PoseNet and TensorFlow.js, the engine the converted model is checked against.
"$(dirname "$0")/fetch-posenet.sh"
# The build for the camera's processor: the arm64 engine and an arm64 sysroot of Debian's
# packages (cached; quick when present).
if [ "${1:-}" != "--no-arm64" ]; then
    "$(dirname "$0")/fetch-tflite.sh" --arch arm64
    "$(dirname "$0")/make-arm64-sysroot.sh"
fi
