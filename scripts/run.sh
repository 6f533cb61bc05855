#!/usr/bin/env bash
# The main job: builds the project (installing what it needs) and runs the catalogue tour.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >/dev/null
cmake --preset default >/dev/null
cmake --build --preset default --target m2-catalogue >/dev/null
exec build/default/examples/m2-catalogue "$@"
