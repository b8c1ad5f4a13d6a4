#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs clang-tidy with the repository's .clang-tidy over the daemon, the host library, the
# simulator, the tests, the benchmarks and the fuzz targets. Configures its own build tree,
# build-tidy/ (clang, every optional part on), for the compilation database and the generated
# event schema. Any finding fails the run.
#
# usage: scripts/tidy.sh [regex of files to check, default: all of the above]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-tidy}
files=${1:-"$root/(src|libubo|sim|tests|bench|fuzz)/.*\.cpp$"}
started=$SECONDS

"$root/scripts/setup.sh" clang clang-tidy libclang-rt-14-dev python3
CC=clang CXX=clang++ cmake -S "$root" -B "$build_dir" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
    -DTAVI_BUILD_BENCH=ON -DTAVI_BUILD_FUZZ=ON >/dev/null
cmake --build "$build_dir" --target tavi_proto ubo_protocol -- --no-print-directory >/dev/null

status=0
# Debian's python3: another one may come first on PATH.
/usr/bin/python3 /usr/bin/run-clang-tidy -p "$build_dir" -quiet -j2 "$files" || status=$?
echo "tidy: exit $status in $((SECONDS - started)) s"
exit $status
