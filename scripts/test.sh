#!/usr/bin/env bash
# Installs what the project needs, builds it and runs the whole test suite once.
#   scripts/test.sh                  normal build
#   scripts/test.sh --asan           AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --tsan           ThreadSanitizer
#   scripts/test.sh --asan ci-asan   only the tests of a label, after building only the target
#                                    of the same name (CI's part of the ASan run)
set -euo pipefail
cd "$(dirname "$0")/.."

preset=default
case "${1:-}" in
    "") ;;
    --asan) preset=asan ;;
    --tsan) preset=tsan ;;
    *) echo "usage: scripts/test.sh [--asan|--tsan] [LABEL]" >&2; exit 2 ;;
esac
label="${2:-}"
if [ -n "$label" ] && [ "$preset" = default ]; then
    echo "usage: scripts/test.sh [--asan|--tsan] [LABEL]" >&2; exit 2
fi

scripts/install-deps.sh
# The setup installs node-opcua, so its interop tests must run, not skip.
export DUVO_REQUIRE_INTEROP=1
rm -f "build/$preset/Testing/Temporary/LastTestsFailed.log"
if [ -z "$label" ]; then
    cmake --workflow --preset "$preset" && exit 0
else
    cmake --preset "$preset" && cmake --build --preset "$preset" --target "$label" &&
        ctest --preset "$preset" -L "^$label\$" && exit 0
fi
# Failed tests once more with their output, last, where the end of a long log shows them.
if [ -f "build/$preset/Testing/Temporary/LastTestsFailed.log" ]; then
    echo "== failed tests, run again:"
    ctest --preset "$preset" --rerun-failed --output-on-failure || true
fi
exit 1
