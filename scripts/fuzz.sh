#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UBSan) in build/fuzz and
# runs each for a number of seconds, starting from its seeds and the saved regressions.
#   scripts/fuzz.sh              every target, 30 s each
#   scripts/fuzz.sh 600          every target, 10 minutes each
#   scripts/fuzz.sh 60 value     one target
# A crash leaves its input in build/fuzz/crashes/<target>/ and makes the script exit non-zero;
# once fixed, copy the input to fuzz/regressions/<target>/ so that the test suite replays it.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(uri value property)
jobs="${FUZZ_BUILD_JOBS:-2}"

cmake -S fuzz -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ >/dev/null
fuzzers=()
for target in "${targets[@]}"; do fuzzers+=("${target}_fuzzer"); done
nice cmake --build build/fuzz -j "$jobs" --target "${fuzzers[@]}"

status=0
for target in "${targets[@]}"; do
    work="build/fuzz/work/$target"  # what this run finds; the seeds stay untouched
    crashes="build/fuzz/crashes/$target"
    mkdir -p "$work" "$crashes"
    seeds=("fuzz/corpus/$target")
    [ -d "fuzz/regressions/$target" ] && seeds+=("fuzz/regressions/$target")
    echo "== $target: ${seconds} s"
    if ! ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        "build/fuzz/${target}_fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$crashes/" "$work" "${seeds[@]}" 2>"build/fuzz/$target.log"; then
        echo "!! $target failed; its log is build/fuzz/$target.log, its input in $crashes/"
        grep -m 20 -E 'ERROR|runtime error|_fuzzer: |SUMMARY' "build/fuzz/$target.log" || true
        status=1
    else
        grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "build/fuzz/$target.log" | tr '\n' ' '
        echo
    fi
done
exit $status
