#!/usr/bin/env bash
# Builds the library and runs the main job: the people counter on the sample clip. It prints
# where its annotated video, snapshot, archives and log are.
#
#   ./scripts/run-main.sh                # the whole clip at its own frame rate (80 s)
#   ./scripts/run-main.sh --fast         # as fast as the analysis goes
#   ./scripts/run-main.sh --serve        # keeps analysing, with the web page on lighttpd
#                                        # (http://127.0.0.1:${PORT:-8080}/local/people_counter/)
# Other options go to the application (see apps/people_counter/main.cpp), e.g. --out DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT="$(pwd)"
APP=people_counter

SERVE=0
for arg in "$@"; do
    [ "$arg" = "--serve" ] && SERVE=1
done

./scripts/install-deps.sh --no-arm64
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DSTEMLIB_BUILD_TESTS=OFF \
    -DSTEMLIB_BUILD_BENCHMARKS=OFF > /dev/null
cmake --build build -j "$(nproc)" --target "$APP"
# Fonts for the languages with a script of their own, found in fonts/ of the working folder.
./scripts/make-fonts-dir.sh > /dev/null
# The shipped camera description plays the clip from this folder.
STEMLIB_SAMPLE_DATA_DIR="$(./scripts/fetch-sample-data.sh --print)"
export STEMLIB_SAMPLE_DATA_DIR

if [ "$SERVE" -eq 0 ]; then
    exec "./build/apps/$APP/$APP" "$@"
fi

# The web page: the application's package folder holds the page and its FastCGI socket, as on a
# camera; lighttpd serves the folder under /local/<app>/ and forwards app.cgi to the socket.
HTML="/usr/local/packages/$APP/html"
if ! mkdir -p "$HTML" 2> /dev/null || [ ! -w "$HTML" ]; then
    if command -v sudo > /dev/null && sudo -n true 2> /dev/null; then
        sudo mkdir -p "$HTML"
        sudo chown "$(id -u):$(id -g)" "$HTML"
    else
        echo "run-main: --serve needs the folder $HTML, writable by you, for the page and its" >&2
        echo "socket (it exists on a camera). Make it once with:" >&2
        echo "  sudo mkdir -p $HTML && sudo chown $(id -un) $HTML" >&2
        exit 1
    fi
fi
cp "apps/$APP/html/index.html" "apps/$APP/html/app.js" "apps/$APP/html/style.css" "$HTML/"
PORT="${PORT:-8080}"
CONF="$ROOT/build/$APP-lighttpd.conf"
cat > "$CONF" << CONFIG
server.bind = "127.0.0.1"
server.port = $PORT
server.document-root = "$HTML"
server.errorlog = "$ROOT/build/$APP-lighttpd.log"
server.modules += ( "mod_alias", "mod_fastcgi" )
index-file.names = ( "index.html" )
mimetype.assign = ( ".html" => "text/html; charset=utf-8", ".js" => "text/javascript",
                    ".css" => "text/css", ".png" => "image/png" )
alias.url = ( "/local/$APP/" => "$HTML/" )
fastcgi.server = ( "/local/$APP/app.cgi" => ((
    "socket" => "$HTML/${APP}_fcgi.socket",
    "check-local" => "disable"
)) )
CONFIG
LIGHTTPD="$(command -v lighttpd || echo /usr/sbin/lighttpd)"
"$LIGHTTPD" -D -f "$CONF" &
SERVER=$!
trap 'kill "$SERVER" 2> /dev/null || true; wait "$SERVER" 2> /dev/null || true' EXIT
echo "run-main: the web page is at http://127.0.0.1:$PORT/local/$APP/index.html (Ctrl-C stops)"
"./build/apps/$APP/$APP" "$@"
