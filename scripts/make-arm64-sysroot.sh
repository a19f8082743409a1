#!/usr/bin/env bash
# Makes the arm64 sysroot that the cross build (cmake/aarch64-linux-gnu.cmake) compiles and links
# against and that qemu-aarch64-static runs the test suite in: Debian bookworm's arm64 packages of
# every dependency, unpacked by mmdebstrap without running any package script, then repaired:
#
#   - absolute development links (libz.so -> /lib/...) are made relative, so that the linker and
#     the emulator resolve them inside the sysroot and not on the PC;
#   - libraries that Debian installs through the alternatives system (libblas.so.3 and the like)
#     are linked to their implementation;
#   - every library that a shared library of the sysroot needs must then be found inside it.
#
# The sysroot is kept outside the source tree:
#   $STEMLIB_ARM64_SYSROOT, else ${XDG_CACHE_HOME:-$HOME/.cache}/stemlib/sysroot-arm64-bookworm
# and `--print` prints that folder. Quick when the sysroot is present and made from the same list.
set -euo pipefail

CACHE_ROOT="${XDG_CACHE_HOME:-$HOME/.cache}"
DEST="${STEMLIB_ARM64_SYSROOT:-$CACHE_ROOT/stemlib/sysroot-arm64-bookworm}"
TRIPLET="aarch64-linux-gnu"

if [ "${1:-}" = "--print" ]; then
    echo "$DEST"
    exit 0
fi

# The arm64 side of scripts/install-deps.sh's libraries; the C and C++ runtime come with them.
PACKAGES=(
    libc6-dev libstdc++-12-dev
    libopencv-dev libopencv-contrib-dev libopencv-videoio-dev libyuv-dev
    libcairo2-dev libfreetype-dev libfontconfig-dev libglib2.0-dev
    libfcgi-dev liburiparser-dev
    libgtest-dev libgmock-dev libbenchmark-dev libflatbuffers-dev nlohmann-json3-dev
)
# Bumped whenever the repairs below change, so that an older sysroot is made again.
REPAIRS_VERSION=1
STAMP_TEXT="bookworm arm64 repairs=$REPAIRS_VERSION ${PACKAGES[*]}"
STAMP="$DEST/.stemlib-sysroot"

if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$STAMP_TEXT" ]; then
    echo "make-arm64-sysroot: sysroot present in $DEST"
    exit 0
fi

for tool in mmdebstrap readelf realpath; do
    if ! command -v "$tool" > /dev/null; then
        echo "make-arm64-sysroot: $tool is missing (scripts/install-deps.sh installs it)" >&2
        exit 1
    fi
done

# The machine's own Debian sources (and any proxy or validity settings of its apt), so that the
# sysroot comes from the same archive as the PC's packages.
SOURCES=()
for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
    if [ -s "$file" ] && grep -q -E '^[^#]*debian' "$file"; then
        SOURCES+=("$file")
    fi
done
if [ "${#SOURCES[@]}" -eq 0 ]; then
    echo "make-arm64-sysroot: no Debian source in /etc/apt" >&2
    exit 1
fi
APTOPTS=(--aptopt='Acquire::Check-Valid-Until "false"' --aptopt='Acquire::Languages "none"')
for file in /etc/apt/apt.conf.d/*; do
    if [ -f "$file" ] && grep -q -E '^[^/#]*Acquire::(http|https|Check-Date|Retries)' "$file"; then
        APTOPTS+=(--aptopt="$file")
    fi
done

STAGE="$DEST.partial"
rm -rf "$STAGE"
mkdir -p "$(dirname "$DEST")"
include="$(
    IFS=,
    echo "${PACKAGES[*]}"
)"
echo "make-arm64-sysroot: unpacking bookworm arm64 packages into $STAGE"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
$SUDO mmdebstrap --quiet --mode=root --variant=extract --arch=arm64 --include="$include" \
    "${APTOPTS[@]}" bookworm "$STAGE" "${SOURCES[@]}"
if [ -n "$SUDO" ]; then
    $SUDO chown -R "$(id -u):$(id -g)" "$STAGE"
fi
# What mmdebstrap leaves for apt inside is of no use to a sysroot.
rm -rf "$STAGE/var/cache/apt/archives/"*.deb "$STAGE/var/lib/apt/lists/"*_Packages

echo "make-arm64-sysroot: making absolute links relative"
fixed=0
while IFS= read -r -d '' link; do
    target="$(readlink "$link")"
    case "$target" in
        /*)
            ln -sfn "$(realpath -s -m --relative-to="$(dirname "$link")" "$STAGE$target")" "$link"
            fixed=$((fixed + 1))
            ;;
    esac
done < <(find "$STAGE" -type l -print0)
echo "make-arm64-sysroot: $fixed links rewritten"

# Alternatives: a library that the libraries of the library folder need, missing there but
# present in one of its subfolders (blas/libblas.so.3, lapack/liblapack.so.3), is linked to that
# implementation. Plugins in subfolders find their own through their run path.
LIBDIR="$STAGE/usr/lib/$TRIPLET"
needed_sonames() {
    find "$LIBDIR" -maxdepth 1 -name '*.so*' -type f -print0 | xargs -0 readelf -d 2> /dev/null |
        sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u
}
resolves() {
    local name="$1"
    [ -e "$LIBDIR/$name" ] || [ -e "$STAGE/lib/$TRIPLET/$name" ] ||
        [ -e "$STAGE/usr/lib/$name" ] || [ -e "$STAGE/lib/$name" ]
}
missing=()
for name in $(needed_sonames); do
    resolves "$name" && continue
    candidate="$(find "$LIBDIR" -mindepth 2 -maxdepth 2 -name "$name" | sort | head -n 1)"
    if [ -n "$candidate" ]; then
        ln -sfn "${candidate#"$LIBDIR"/}" "$LIBDIR/$name"
        echo "make-arm64-sysroot: $name -> ${candidate#"$LIBDIR"/}"
    else
        missing+=("$name")
    fi
done
if [ "${#missing[@]}" -ne 0 ]; then
    echo "make-arm64-sysroot: needed but not in the sysroot: ${missing[*]}" >&2
    exit 1
fi

echo "$STAMP_TEXT" > "$STAGE/.stemlib-sysroot"
rm -rf "$DEST"
mv "$STAGE" "$DEST"
echo "make-arm64-sysroot: sysroot ready in $DEST ($(du -sh "$DEST" | cut -f1))"
