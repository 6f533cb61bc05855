#!/usr/bin/env bash
# Builds the benchmark (Release, build/bench, only what it needs) and runs it: our publish,
# call, subscribe and poll paths beside a client of raw open62541, against one simulator in its
# own process. Prints one table and one "bench NAME ours=... raw=... ratio=..." line per figure.
# Arguments go to the benchmark (--quick, --rounds N, --round-ms MS, --samples N, --scale N,N,
# --load N: N busy processes beside the run, stopped with it).
# Needs the project's dependencies (scripts/install-deps.sh).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/bench"
jobs="${DUVO_BENCH_JOBS:-2}"

mkdir -p "$build"
start=$(date +%s)
if ! { cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DDUVO_BUILD_BENCHMARKS=ON -DDUVO_BUILD_TESTS=OFF &&
       cmake --build "$build" --target duvo-bench -j "$jobs"; } >"$build/build.log" 2>&1; then
    tail -n 40 "$build/build.log" >&2
    echo "bench.sh: the build failed; the whole log is $build/build.log" >&2
    exit 1
fi
echo "built in $(( $(date +%s) - start )) s ($build)"

"$build/bench/duvo-bench" "$@"
