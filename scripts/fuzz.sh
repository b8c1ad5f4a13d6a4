#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets with clang, ASan and UBSan into build-fuzz/ and runs each in
# turn for a while. New inputs go to build-fuzz/corpus/<target>/ (the seeds in fuzz/corpus/
# stay as they are); a crashing input is written to build-fuzz/artifacts/.
#
# usage: scripts/fuzz.sh [all|sysfs_parser|cache_record|cache_file] [seconds per target, 60]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-fuzz}
targets=(sysfs_parser cache_record cache_file)
selected=${1:-all}
seconds=${2:-60}

selected=${selected%_fuzzer}
if [[ "$selected" != all ]]; then
    if [[ " ${targets[*]} " != *" $selected "* ]]; then
        echo "usage: $0 [all|sysfs_parser|cache_record|cache_file] [seconds]" >&2
        exit 2
    fi
    targets=("$selected")
fi

"$root/scripts/setup.sh" clang libclang-rt-14-dev
CC=clang CXX=clang++ cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTAVI_BUILD_FUZZ=ON -DTAVI_SANITIZE=address,undefined \
    -DTAVI_BUILD_TESTS=OFF -DTAVI_BUILD_SIM=OFF >/dev/null
binaries=()
for target in "${targets[@]}"; do binaries+=("tavi_${target}_fuzzer"); done
cmake --build "$build_dir" -j2 --target "${binaries[@]}" -- --no-print-directory

status=0
mkdir -p "$build_dir/artifacts"
for target in "${targets[@]}"; do
    corpus=$build_dir/corpus/${target}_fuzzer
    log=$build_dir/${target}_fuzzer.log
    mkdir -p "$corpus"
    echo "fuzz: ${target}_fuzzer for ${seconds}s (log: $log)"
    if ! "$build_dir/fuzz/tavi_${target}_fuzzer" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$build_dir/artifacts/${target}_fuzzer-" \
        "$corpus" "$root/fuzz/corpus/${target}_fuzzer" >"$log" 2>&1; then
        echo "fuzz: ${target}_fuzzer FAILED" >&2
        status=1
    fi
    # The last progress line carries coverage (cov), features (ft) and the corpus size.
    grep -E '^#[0-9]+' "$log" | tail -n 1
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)' "$log" || true
    grep -E 'ERROR|SUMMARY|fuzz check failed' "$log" || true
done
exit $status
