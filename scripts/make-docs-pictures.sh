#!/usr/bin/env bash
# Makes the README's pictures of the people counter in docs/:
#   people-counter-frame.png  frame 200 of the sample clip with the application's overlay
#   people-counter-page.png   its web page in headless chromium, served by lighttpd
# The page is taken by the browser test, which needs /usr/local/packages to be writable (root).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT="$(pwd)"

./scripts/install-deps.sh > /dev/null
cmake -S . -B build > /dev/null
cmake --build build -j "$(nproc)" --target people_counter stemlib_tests > /dev/null
./scripts/make-fonts-dir.sh > /dev/null
mkdir -p docs
RUN="$(mktemp -d)"
trap 'rm -rf "$RUN"' EXIT

STEMLIB_SAMPLE_DATA_DIR="$(./scripts/fetch-sample-data.sh --print)" \
    ./build/apps/people_counter/people_counter --camera apps/people_counter/vtest-camera.txt \
    --fast --frames 201 --no-web --no-video --quiet --snapshot-seconds 1000 --out "$RUN" \
    > /dev/null
cp "$RUN/snapshot.png" docs/people-counter-frame.png

rm -f docs/people-counter-page.png
PEOPLE_COUNTER_DOCS_DIR="$ROOT/docs" ./build/tests/stemlib_tests \
    --gtest_filter=PeopleCounterApp.WebPageInABrowser > "$RUN/test.txt" 2>&1 || {
    cat "$RUN/test.txt" >&2
    exit 1
}
if [ ! -s docs/people-counter-page.png ]; then
    echo "make-docs-pictures: the browser test took no picture (run as root?)" >&2
    grep -i skip "$RUN/test.txt" >&2 || true
    exit 1
fi
ls -l docs/people-counter-frame.png docs/people-counter-page.png
