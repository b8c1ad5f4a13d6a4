#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the benchmarks (Release) into build-bench/ and prints every figure: per-record work
# in process against the regular-expression reading of the line format, the cache file at its
# ceiling, and the daemon end to end in the simulated device (root and FUSE; skipped
# otherwise) with its memory and CPU at rest.
#
# usage: scripts/bench.sh [extra arguments for tavi_e2e_bench, e.g. --total 20000]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-bench}
started=$SECONDS

"$root/scripts/setup.sh"
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DTAVI_BUILD_BENCH=ON \
    -DTAVI_BUILD_TESTS=OFF >/dev/null
cmake --build "$build_dir" -j2 --target tavi_benchmarks tavi_e2e_bench -- --no-print-directory \
    >/dev/null

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) CPUs online"

json=$build_dir/bench.json
"$build_dir/bench/tavi_benchmarks" --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true --benchmark_counters_tabular=true \
    --benchmark_out="$json" --benchmark_out_format=json

# Median over the repetitions of one field of a benchmark's JSON entry, in its own unit.
median() {
    awk -v want="\"$1_median\"," -v field="\"$2\":" '
        $1 == "\"name\":" { hit = ($2 == want) }
        hit && $1 == field { sub(",", "", $2); print $2; exit }' "$json"
}
# The figure against its target: "<value> <unit> (target <op> <limit>: met|MISSED)".
verdict() {
    awk -v v="$1" -v op="$2" -v limit="$3" -v unit="$4" 'BEGIN {
        met = (op == "<") ? (v < limit) : (v >= limit)
        printf "%.*f %s (target %s %s: %s)", (v < 10 ? 2 : 0), v, unit, op, limit,
            met ? "met" : "MISSED" }'
}

# Verdicts on CPU time: on a shared machine wall time also counts other processes' turns.
record=$(median BM_RecordPath cpu_time)
quiet=$(median BM_RecordPath_InfoLogsOff cpu_time)
regex=$(median BM_RecordPath_RegexParser cpu_time)
save=$(median BM_CacheSave_128IntoNearlyFullFile cpu_time)
load=$(median BM_CacheLoad_FullFile cpu_time)
echo
echo "Figures (CPU time, median of 5 repetitions; wall time in the table above):"
echo "  per record, parse to send:        $(verdict "$record" '<' 1000 ns)"
echo "  the same without its log line:    $(verdict "$quiet" '<' 1000 ns)"
echo "  same path with std::regex parser: $(awk -v v="$regex" 'BEGIN { printf "%.0f ns", v }')"
echo "  speed-up over std::regex:         $(verdict "$(awk -v a="$regex" -v b="$record" \
    'BEGIN { print a / b }')" '>=' 20 times)"
echo "  cache Save, 128 into full file:   $(verdict "$save" '<' 5 ms)"
echo "  cache Load, full file:            $(verdict "$load" '<' 5 ms)"
echo

"$build_dir/bench/tavi_e2e_bench" "$@"
echo "bench: done in $((SECONDS - started)) s"
