#!/usr/bin/env bash
# Makes a fonts/ folder as an application's package carries it: the font files of the languages
# with a script of their own, under the names the library looks for, as links to Debian's fonts
# (installed by scripts/install-deps.sh).
#
#   NotoSansThai.ttf  Thai: TLWG Loma Bold (fonts-tlwg-loma-ttf). Debian's Noto Sans Thai is not
#                     used: it has no Latin letters, and Thai texts hold "EULA", "AI", "ms", "3D".
#   wqy-microhei.ttc  Japanese, Chinese, Korean, Vietnamese: WenQuanYi Micro Hei
#                     (fonts-wqy-microhei).
#
# Usage: scripts/make-fonts-dir.sh [folder]   (default: fonts/ at the top of the source tree)
# The library finds "fonts/" relative to the working directory, so run applications from the
# folder that holds it.
set -euo pipefail

DIR="${1:-$(cd "$(dirname "$0")/.." && pwd)/fonts}"

# link <name> <candidate>...: links the first candidate that exists.
link() {
    local name="$1" candidate
    shift
    for candidate in "$@"; do
        if [ -r "$candidate" ]; then
            ln -sfn "$candidate" "$DIR/$name"
            return 0
        fi
    done
    echo "make-fonts-dir: none of $* found for $name; run scripts/install-deps.sh" >&2
    return 1
}

mkdir -p "$DIR"
link NotoSansThai.ttf /usr/share/fonts/truetype/tlwg/Loma-Bold.ttf
link wqy-microhei.ttc /usr/share/fonts/truetype/wqy/wqy-microhei.ttc
echo "make-fonts-dir: fonts in $DIR"
