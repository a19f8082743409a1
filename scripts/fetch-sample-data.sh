#!/usr/bin/env bash
# Makes Debian's OpenCV sample data (package opencv-doc: real photographs of a chessboard, pictures
# of people and a surveillance clip) available to the tests, the examples and the applications.
#
# The package is installed by scripts/install-deps.sh. On a machine whose dpkg leaves out
# /usr/share/doc (a common setting of container images), its data never reaches the disk; this
# script then downloads the package through apt (which verifies it against the archive's signed
# index) and extracts the data folder into a cache outside the source tree:
#
#   $STEMLIB_SAMPLE_DATA_DIR, else /usr/share/doc/opencv-doc/examples/data when complete,
#   else ${XDG_CACHE_HOME:-$HOME/.cache}/stemlib/opencv-doc-4.6/data
#
# `scripts/fetch-sample-data.sh --print` prints the folder in use. Quick when already present.
set -euo pipefail

SYSTEM_DIR="/usr/share/doc/opencv-doc/examples/data"
CACHE_ROOT="${XDG_CACHE_HOME:-$HOME/.cache}"
CACHE_DIR="$CACHE_ROOT/stemlib/opencv-doc-4.6/data"
# Files the project uses; the folder counts as complete when all are there.
NEEDED=(vtest.avi messi5.jpg basketball1.png basketball2.png left01.jpg left14.jpg)

complete() {
    local dir="$1" file
    for file in "${NEEDED[@]}"; do
        [ -s "$dir/$file" ] || return 1
    done
}

if [ -n "${STEMLIB_SAMPLE_DATA_DIR:-}" ]; then
    DIR="$STEMLIB_SAMPLE_DATA_DIR"
elif complete "$SYSTEM_DIR"; then
    DIR="$SYSTEM_DIR"
else
    DIR="$CACHE_DIR"
fi

if [ "${1:-}" = "--print" ]; then
    echo "$DIR"
    exit 0
fi

if complete "$DIR"; then
    echo "fetch-sample-data: sample data present in $DIR"
    exit 0
fi
if [ "$DIR" != "$CACHE_DIR" ]; then
    echo "fetch-sample-data: $DIR lacks some of: ${NEEDED[*]}" >&2
    exit 1
fi

WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT
chmod 755 "$WORK" # apt downloads as its own user
echo "fetch-sample-data: extracting opencv-doc's data into $CACHE_DIR"
(cd "$WORK" && apt-get download -q opencv-doc > /dev/null)
DEB="$(ls "$WORK"/opencv-doc_*.deb)"
dpkg-deb --fsys-tarfile "$DEB" | tar -x -C "$WORK" ./usr/share/doc/opencv-doc/examples/data
STAGE="$CACHE_DIR.partial"
rm -rf "$STAGE"
mkdir -p "$(dirname "$CACHE_DIR")"
mv "$WORK/usr/share/doc/opencv-doc/examples/data" "$STAGE"
complete "$STAGE" || {
    echo "fetch-sample-data: the package lacks some of: ${NEEDED[*]}" >&2
    exit 1
}
rm -rf "$CACHE_DIR"
mv "$STAGE" "$CACHE_DIR"
echo "fetch-sample-data: sample data in $CACHE_DIR"
