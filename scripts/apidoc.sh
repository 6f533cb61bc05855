#!/usr/bin/env bash
# The API reference of the public headers, with the README as its front page:
#   scripts/apidoc.sh [OUTPUT_DIR]     (default build/apidoc; open OUTPUT_DIR/html/index.html)
# Needs doxygen (Debian package doxygen). Lists the public items without a description and
# exits 1 when there are any.
set -euo pipefail

# Doxygen reads the Markdown pages through this (FILTER_PATTERNS): each "##" heading outside
# code blocks gets the anchor a forge gives it as an explicit label, so the "(#section)" links
# resolve in the reference too and the files themselves stay plain Markdown.
if [ "${1:-}" = --markdown-filter ]; then
    exec awk '
        /^```/ { fenced = !fenced }
        !fenced && /^##+ / {
            slug = tolower($0)
            sub(/^#+ +/, "", slug)
            gsub(/[^a-z0-9 _-]/, "", slug)
            gsub(/ /, "-", slug)
            $0 = $0 " {#" slug "}"
        }
        { print }' "$2"
fi

cd "$(dirname "$0")/.."

if ! command -v doxygen >/dev/null; then
    echo "apidoc: doxygen is not installed (Debian: apt install doxygen)" >&2
    exit 2
fi
out="${1:-build/apidoc}"
mkdir -p "$out"
export DUVO_APIDOC_OUT="$(cd "$out" && pwd)"
doxygen Doxyfile
if [ -s "$DUVO_APIDOC_OUT/warnings.txt" ]; then
    cat "$DUVO_APIDOC_OUT/warnings.txt" >&2
    echo "apidoc: $(wc -l < "$DUVO_APIDOC_OUT/warnings.txt") warnings, see above" >&2
    exit 1
fi
echo "apidoc: $DUVO_APIDOC_OUT/html/index.html"
