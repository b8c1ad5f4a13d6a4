#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds everything with sanitizers and runs the whole test suite, the daemon that the
# end-to-end tests start included:
#   address  ASan + UBSan into build-asan/
#   thread   TSan into build-tsan/
# Any report fails the run.
#
# usage: scripts/sanitize.sh address|thread [extra ctest arguments, e.g. -R Listener]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-}
case "$mode" in
    address) sanitizers=address,undefined; default_dir=build-asan ;;
    thread) sanitizers=thread; default_dir=build-tsan ;;
    *) echo "usage: $0 address|thread [ctest arguments...]" >&2; exit 2 ;;
esac
shift
build_dir=${BUILD_DIR:-$root/$default_dir}
started=$SECONDS

"$root/scripts/setup.sh"
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTAVI_SANITIZE="$sanitizers" >/dev/null
cmake --build "$build_dir" -j2 -- --no-print-directory >/dev/null

# A daemon stopped by SIGTERM leaves its event session open on purpose, so the session the
# service library allocated is never freed: that one is not a leak.
suppressions=$build_dir/lsan.supp
echo "leak:ubo_create" >"$suppressions"

# Reports go to stderr, which ctest shows for a failing test; the exit code fails it.
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1
export LSAN_OPTIONS=suppressions=$suppressions:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# Death tests fork a child that must not be taken for a TSan error.
export TSAN_OPTIONS=die_after_fork=0:halt_on_error=1:second_deadlock_stack=1
cd "$build_dir"
status=0
ctest --output-on-failure -j2 "$@" || status=$?
echo "sanitize ($mode): ctest exit $status in $((SECONDS - started)) s"
exit $status
