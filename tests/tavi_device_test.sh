#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# tavi-device and its launcher on this host: signal state as init hands it to a service,
# a start-up draining more than a pipe buffer of log lines, and repeated up/down cycles.
# usage: tavi_device_test.sh BUILD_DIR   (root; exits 77 to be skipped otherwise)
# TAVI_DEVICE_TEST_CYCLES sets the number of up/down cycles (default 3).
set -euo pipefail

build_dir=$(realpath -- "$1")
root=$(cd "$(dirname "$0")/.." && pwd)
device=$root/sim/device/tavi-device
ns_exec=$root/sim/device/tavi-ns-exec
cycles=${TAVI_DEVICE_TEST_CYCLES:-3}
readonly build_dir root device ns_exec cycles

if [[ $(id -u) -ne 0 || ! -c /dev/fuse ]]; then
    echo "skipped: needs root and /dev/fuse"
    exit 77
fi

work=$(mktemp -d)
export TAVI_BUILD_DIR=$build_dir TAVI_DEVICE_STATE=$work/device
cleanup() {
    "$device" down >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# Runs a command with SIGUSR1 blocked and SIGQUIT ignored, as a careless caller might.
with_odd_signals() {
    perl -MPOSIX -e 'sigprocmask(SIG_BLOCK, POSIX::SigSet->new(SIGUSR1));
        $SIG{QUIT} = "IGNORE"; exec @ARGV or die "exec: $!"' -- "$@"
}

# "SigBlk SigIgn" of a process, as hex masks.
signal_masks() {
    awk '/^SigBlk:/ { blocked = $2 } /^SigIgn:/ { ignored = $2 } END { print blocked, ignored }' \
        "$1"
}

# What the launcher hands to the command it executes.
mkdir -p "$work/persist"
masks=$(with_odd_signals "$ns_exec" --persist "$work/persist" --no-attribute -- \
    cat /proc/self/status | signal_masks /dev/stdin)
[[ "$masks" == "0000000000000000 0000000000000000" ]] ||
    fail "launcher hands over blocked/ignored signals $masks, want none"

# The daemon started by tavi-device: nothing ignored, only the two stop signals that it
# blocks itself for its signalfd.
with_odd_signals "$device" up --active >"$work/up.out" 2>&1 || fail "up: $(cat "$work/up.out")"
pid=$(cat "$work/device/run/daemon.pid")
masks=$(signal_masks "/proc/$pid/status")
[[ "$masks" == "0000000000004002 0000000000000000" ]] ||
    fail "daemon runs with blocked/ignored signals $masks, want 4002 (INT, TERM) and none"

# More than a pipe buffer of log lines before the daemon says it polls.
"$device" stop-daemon INT >/dev/null || fail "stop-daemon INT"
records=()
for ((i = 0; i < 2000; i++)); do records+=("4,1,3001,$i,0,0,0"); done
"$device" inject "${records[@]}"
"$device" start-daemon >"$work/start.out" 2>&1 ||
    fail "start-daemon with a backlog of 2000: $(cat "$work/start.out")"
"$device" down >/dev/null || fail "down"

# Spawned processes are checked before their program may have been executed: a setsid that
# takes its time widens that gap from a rare race to every start.
mkdir -p "$work/slow-exec"
printf '#!/bin/sh\nsleep 0.3\nexec %s "$@"\n' "$(command -v setsid)" >"$work/slow-exec/setsid"
chmod +x "$work/slow-exec/setsid"
for ((i = 1; i <= cycles; i++)); do
    if ! PATH=$work/slow-exec:$PATH "$device" up --active >"$work/up.out" 2>&1; then
        fail "up, cycle $i of $cycles: $(cat "$work/up.out")"
        break
    fi
    "$device" down >/dev/null || fail "down, cycle $i"
done

((failures == 0)) || exit 1
echo "passed ($cycles up/down cycles)"
