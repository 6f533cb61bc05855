#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, builds the example application against the
# installed package alone, and runs it against an installed m2-sim.
#   example.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
sim_pid=""
cleanup() {
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$source/examples/app" -B "$work/app" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/app" >/dev/null
# The binding classes that the README's samples include are installed with what they include.
echo '#include <generated/opcua/m2Types/m2Types.hpp>' |
    c++ -std=c++17 -fsyntax-only -x c++ -I"$work/prefix/include" \
        -I"$work/prefix/include/duvo-m2Types-opcua" -DBOOST_THREAD_VERSION=5 \
        -DBOOST_CHRONO_HEADER_ONLY -

"$work/prefix/bin/m2-sim" --port 0 > "$work/sim.out" 2>/dev/null &
sim_pid=$!
for _ in $(seq 100); do
    grep -q '^ready ' "$work/sim.out" && break
    sleep 0.05
done
endpoint=$(sed -n 's/^ready opc.tcp:\/\///p' "$work/sim.out")
[ -n "$endpoint" ] || { echo "m2-sim did not start"; exit 1; }

output=$("$work/app/m2-example" "$endpoint")
echo "$output"
grep -q "M2FloatVector6 holds 6 values, first 1.5" <<<"$output"
grep -q "RPC_SetPower(true) returned true" <<<"$output"
