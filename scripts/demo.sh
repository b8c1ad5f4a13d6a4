#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The daemon's story on a simulated device, from a fresh Debian 12 machine: installs what is
# needed, builds, then runs the daemon against an emulated kernel attribute and a simulated
# event service and narrates what happens. Every expected log line and event is checked; the
# exit status is 0 only when all of them were seen. Run as root.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
readonly root
readonly build_dir=${BUILD_DIR:-$root/build}
readonly device=$root/sim/device/tavi-device
export TAVI_BUILD_DIR=$build_dir
export TAVI_DEVICE_STATE=${TAVI_DEVICE_STATE:-$build_dir/demo-device}
readonly state_dir=$TAVI_DEVICE_STATE
readonly daemon_log=$state_dir/daemon.log
readonly events_file=$state_dir/events.jsonl
readonly service_out=$state_dir/run/ubo_sim.out
readonly cache_path=/mnt/vendor/persist/tavi/cache.bin
readonly line_timeout=10 # seconds to wait for an expected line
readonly width=160

# Records of the story (category, log level, error code, param1..param4).
readonly charger_reset=4,1,3001,1,0,0,0
readonly display_short=3,0,2000,1,0,0,0
readonly bad_sector=2,2,1000,-1,-7,42,0
readonly invalid_battery=4,0,3000,0,5,0,0
readonly soc_freeze=4,2,3002,-1,0,300,1
readonly camera=1,1,5,0,0,0,0
readonly unknown_charger=4,1,3099,0,0,0,0
readonly display_after_errors=3,1,2000,0,0,0,0

# The text form of a record of type LOG, as the daemon logs it.
text_form() {
    local category log_level error_code p1 p2 p3 p4
    IFS=, read -r category log_level error_code p1 p2 p3 p4 <<<"$1"
    echo "Message {Type: LOG, Category: $category, LogLevel: $log_level, ErrorCode: $error_code, Param1: $p1, Param2: $p2, Param3: $p3, Param4: $p4, Message: }"
}

# ---- narration -----------------------------------------------------------------------------

bold=""
plain=""
if [[ -t 1 ]]; then
    bold=$(tput bold 2>/dev/null || true)
    plain=$(tput sgr0 2>/dev/null || true)
fi

headline() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"; }
note() { fold -s -w "$width" <<<"$*" | sed 's/^/   /'; }

# Shows a tavi-device command and runs it; the story cannot go on when it fails.
device() {
    local status=0
    printf '%s$ tavi-device %s%s\n' "$bold" "$*" "$plain"
    "$device" "$@" 2>&1 | sed 's/^/  /' || status=$?
    ((status == 0)) || fail "tavi-device $* failed (exit status $status)"
}

# Prefixes each line and wraps long ones under the prefix; control characters made visible.
columnize() {
    local prefix=$1
    sed -e 's/\r/\\r/g' | awk -v prefix="$prefix" -v width="$width" '
        BEGIN { blank = prefix; gsub(/[^|]/, " ", blank) }
        {
            line = $0; first = 1
            while (length(prefix) + length(line) > width) {
                cut = width - length(prefix)
                for (i = cut; i > cut / 2; i--) if (substr(line, i, 1) == " ") break
                if (i <= cut / 2) i = cut
                print (first ? prefix : blank) substr(line, 1, i)
                line = substr(line, i + 1); first = 0
            }
            print (first ? prefix : blank) line
        }'
}

daemon_shown=0  # bytes of daemon.log already shown
service_shown=0 # lines of ubo_sim.out already shown

# Prints what the daemon logged and what the service said since the last call. Daemon lines
# keep their severity and text (so that most fit in 160 columns) and lose the empty line that
# follows each message.
show_new() {
    local size
    if [[ -f "$daemon_log" ]]; then
        size=$(stat -c %s "$daemon_log")
        tail -c +$((daemon_shown + 1)) "$daemon_log" | head -c $((size - daemon_shown)) |
            sed -E -n 's/^tavi_daemon ([A-Z]) [0-9-]+ [0-9:]+ +[0-9]+ +[0-9]+ [^ ]+\] (.+)$/\1 \2/p' |
            columnize "daemon | "
        daemon_shown=$size
    fi
    if [[ -f "$service_out" ]]; then
        tail -n +$((service_shown + 1)) "$service_out" |
            sed -E -e 's/^ubo_sim: //' -e 's/^(event #.*) (bytes=.*)$/\1\n\2/' | columnize "service| "
        service_shown=$(wc -l <"$service_out")
    fi
}

# ---- checks --------------------------------------------------------------------------------

fail() {
    printf '\n%sDEMO FAILED: %s%s\n' "$bold" "$*" "$plain" >&2
    exit 1
}

# How many daemon log lines have exactly TEXT after their "file:line] " header.
count_log_lines() {
    [[ -f "$daemon_log" ]] || {
        echo 0
        return
    }
    EXPECTED="$1" awk '{ i = index($0, "] "); if (i && substr($0, i + 2) == ENVIRON["EXPECTED"]) n++ }
        END { print n + 0 }' "$daemon_log"
}

log_has() { (($(count_log_lines "$1") >= ${2:-1})); }

# Waits (bounded) until the daemon has logged TEXT at least COUNT times in all.
expect_log() {
    local text=$1 count=${2:-1} ticks
    for ((ticks = line_timeout * 10; ticks > 0; ticks--)); do
        log_has "$text" "$count" && return 0
        sleep 0.1
    done
    fail "the daemon did not log \"$text\" (expected $count time(s), seen $(count_log_lines "$text"))"
}

# JSON records of the service with every one of the given "key":value members.
count_events() {
    [[ -f "$events_file" ]] || {
        echo 0
        return
    }
    awk -v n="$#" 'BEGIN { for (i = 1; i < ARGC; i++) want[i] = ARGV[i]; ARGC = 1 }
        { ok = 1; for (i = 1; i <= n; i++) if (index($0, want[i]) == 0) ok = 0; if (ok) c++ }
        END { print c + 0 }' "$@" <"$events_file"
}

expect_event() {
    local ticks
    for ((ticks = line_timeout * 10; ticks > 0; ticks--)); do
        (($(count_events "$@") > 0)) && return 0
        sleep 0.1
    done
    fail "the event service has no record with $*"
}

expect_output() {
    local output=$1 text=$2
    grep -qF -- "$text" <<<"$output" || fail "expected \"$text\" in:
$output"
}

# The daemon's lines between "Cache flush starting" and "Cache flush ended".
flushed_lines() {
    awk '{ i = index($0, "] "); t = i ? substr($0, i + 2) : "" }
        t == "Cache flush ended" { on = 0 }
        on && t != "" { print t }
        t == "Cache flush starting" { on = 1 }' "$daemon_log"
}

# ---- set-up ----------------------------------------------------------------------------------

check_host() {
    if [[ $(id -u) -ne 0 ]]; then
        echo "demo: needs root (it mounts a FUSE file system and uses a mount namespace);" \
            "run: sudo $0" >&2
        exit 1
    fi
    if [[ ! -c /dev/fuse ]]; then
        echo "demo: /dev/fuse is missing; load the module (modprobe fuse) or give the" \
            "container the device" >&2
        exit 1
    fi
}

# A fresh state folder; a device left up by an interrupted run is taken down first. Only
# what tavi-device and this script put there is removed: the folder may be the user's choice.
fresh_state() {
    "$device" down >/dev/null 2>&1 || "$device" down || fail "could not take down the old device"
    if grep -qF " $state_dir/" /proc/mounts; then fail "something is still mounted under $state_dir"; fi
    rm -rf -- "${state_dir:?}/persist" "$state_dir/run" "$state_dir/stop.out"
    rm -f -- "$daemon_log" "$daemon_log.old" "$events_file" "$events_file.old"
}

on_exit() {
    local status=$?
    trap - EXIT INT TERM
    if [[ $status -ne 0 && -d "$state_dir/run" ]]; then
        echo "demo: taking the simulated device down" >&2
        "$device" down >&2 || true
    fi
    exit "$status"
}

# ---- the story -------------------------------------------------------------------------------

story_cached() {
    headline "1. The event service is down: records are kept in the daemon's memory"
    note "The service starts inactive. The daemon's readiness task retries every second; meanwhile every record it accepts is stored in its cache."
    device up
    device inject "$charger_reset" "$display_short" "$bad_sector"
    local record
    for record in "$charger_reset" "$display_short" "$bad_sector"; do
        expect_log "Store the message in the cache: $(text_form "$record")"
    done
    show_new
}

story_saved() {
    headline "2. SIGTERM: the daemon saves its cache, then waits for the service"
    local stop_output=$state_dir/stop.out stop_job output ticks shown
    printf '%s$ tavi-device stop-daemon TERM --timeout 15 &%s\n' "$bold" "$plain"
    "$device" stop-daemon TERM --timeout 15 >"$stop_output" 2>&1 &
    stop_job=$!
    expect_log "Saved the cache to $cache_path"
    expect_log "tavi_daemon ended"
    for ((ticks = 30; ticks > 0; ticks--)); do
        grep -qF "daemon is waiting for the event service" "$stop_output" && break
        sleep 0.1
    done
    sed 's/^/  /' "$stop_output"
    shown=$(wc -l <"$stop_output")
    show_new
    note "The cache file is in the persist folder, which the daemon sees as $cache_path:"
    output=$(device cache) || fail "tavi-device cache failed"
    echo "$output"
    expect_output "$output" "mode 0600"
    expect_output "$output" "3 entries, 0 bad"
    note "Its poll loop is over, but the daemon does not exit before its readiness task has seen the service active. Letting the service up briefly lets it finish; after SIGTERM it leaves its session open."
    device service active
    printf '%s$ wait   # for stop-daemon%s\n' "$bold" "$plain"
    wait "$stop_job" || fail "stop-daemon TERM did not see the daemon end cleanly: $(cat "$stop_output")"
    tail -n +$((shown + 1)) "$stop_output" | sed 's/^/  /'
    expect_log "Skip closing UBO session"
    expect_event '"kind":"session_lost"' '"session":1'
    show_new
    device service inactive
}

story_replayed() {
    headline "3. The daemon restarts; the service comes up; the cache is replayed"
    note "A new record arrives while the service is still down and is cached in memory. When the service is active, the daemon loads the file and replays this run's record first, then the saved ones."
    device start-daemon
    device inject "$invalid_battery"
    expect_log "Store the message in the cache: $(text_form "$invalid_battery")"
    device service active
    expect_log "Loaded the cache from $cache_path"
    expect_log "Cache flush ended"
    show_new
    local expected actual output record
    expected=$(for record in "$invalid_battery" "$charger_reset" "$display_short" "$bad_sector"; do
        echo "Send the message to UBO: $(text_form "$record")"
    done)
    actual=$(flushed_lines)
    [[ "$actual" == "$expected" ]] || fail "the flush did not replay in the expected order; it logged:
$actual"
    output=$(device cache)
    echo "$output"
    expect_output "$output" "no cache file"
    expect_event '"kind":"event"' '"probe":"TaviLinuxOsBadSector"' \
        '"payload_hex":"080210e80718ffffffffffffffffff0120f9ffffffffffffffff01282a"'
}

story_live() {
    headline "4. Live records are delivered at once"
    device inject "$soc_freeze"
    expect_log "Send the message to UBO: $(text_form "$soc_freeze")"
    expect_event '"kind":"event"' '"probe":"TaviChargerDetectSocFreeze"' \
        '"payload_hex":"080210ba1718ffffffffffffffffff01200028ac023001"' '"param4":true'
    show_new
}

story_no_event() {
    headline "5. Records without an event: a camera record and an unknown charger code"
    device inject "$camera" "$unknown_charger"
    expect_log "Failed to pack the massage: $(text_form "$camera")"
    expect_log "Failed to pack the massage: $(text_form "$unknown_charger")"
    show_new
}

story_malformed() {
    headline "6. Malformed lines are rejected; the daemon keeps serving"
    device inject --raw '4,1,3001\n' '4,1,3001,1,0,0,0\r\n'
    device inject "$display_after_errors"
    expect_log "Failed to parse the string for MessageType LOG: 4,1,3001"
    expect_log $'Failed to parse the string for MessageType LOG: 4,1,3001,1,0,0,0\r'
    expect_log "Send the message to UBO: $(text_form "$display_after_errors")"
    expect_event '"kind":"event"' '"seq":6' '"probe":"TaviDisplayShort"' '"payload_hex":"080110d00f1800"'
    show_new
}

story_closed() {
    headline "7. SIGINT: the daemon closes its session"
    device stop-daemon INT || fail "stop-daemon INT failed"
    expect_log "Closed UBO session"
    expect_event '"kind":"session_destroyed"' '"session":2'
    show_new
}

# Everything once more, from the files the run left behind.
final_check() {
    local record count
    for record in "$charger_reset" "$display_short" "$bad_sector" "$invalid_battery"; do
        log_has "Store the message in the cache: $(text_form "$record")" ||
            fail "missing daemon line: Store the message in the cache: $(text_form "$record")"
    done
    for record in "$invalid_battery" "$charger_reset" "$display_short" "$bad_sector" \
        "$soc_freeze" "$display_after_errors"; do
        log_has "Send the message to UBO: $(text_form "$record")" ||
            fail "missing daemon line: Send the message to UBO: $(text_form "$record")"
    done
    local -a lines=("tavi_daemon starting" "poll() loop starting" "tavi_daemon ended"
        "Saved the cache to $cache_path" "Skip closing UBO session"
        "Loaded the cache from $cache_path" "Cache flush starting" "Cache flush ended"
        "Failed to pack the massage: $(text_form "$camera")"
        "Failed to pack the massage: $(text_form "$unknown_charger")"
        "Failed to parse the string for MessageType LOG: 4,1,3001" "Closed UBO session")
    local line
    for line in "${lines[@]}"; do
        log_has "$line" || fail "missing daemon line: $line"
    done
    count=$(count_events '"kind":"event"')
    ((count == 6)) || fail "the service received $count events, 6 expected"
    (($(count_events '"kind":"event"' '"rc":0' '"active":true') == 6)) ||
        fail "not every event was accepted by an active service"
    if grep -qF " $state_dir/" /proc/mounts; then fail "a mount is left under $state_dir"; fi
}

main() {
    check_host
    local started=$SECONDS
    headline "Setting up the host and building ($build_dir)"
    "$root/scripts/setup.sh"
    "$root/scripts/build.sh"
    local built=$SECONDS
    trap on_exit EXIT
    trap 'exit 130' INT TERM
    fresh_state
    story_cached
    story_saved
    story_replayed
    story_live
    story_no_event
    story_malformed
    story_closed
    headline "Taking the simulated device down"
    device down
    final_check
    printf '\n%sDemo passed%s: every expected log line and event was seen (%d s after a %d s build).\n' \
        "$bold" "$plain" $((SECONDS - built)) $((built - started))
    echo "Daemon log: $daemon_log; events: $events_file"
}

main "$@"
