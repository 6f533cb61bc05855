#!/usr/bin/env bash
# The main job: builds the project (installing what it needs) and runs `m2ctl tour`, which
# starts the embedded simulator and, through the plug-in loaded by name, publishes and reads
# back every type and calls every interface. Arguments go to the tour (for example --json, or
# --endpoint opc.tcp://HOST:PORT for a device). It installs and configures only what building
# and running need: no test framework, benchmark library, fuzzer or Node.js.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --run >/dev/null
cmake --preset default -DDUVO_BUILD_TESTS=OFF >/dev/null
cmake --build --preset default --target m2ctl m2Types-opcua >/dev/null
exec build/default/tools/m2ctl/m2ctl tour "$@"
