#!/bin/busybox sh
# SPDX-License-Identifier: Apache-2.0
# /init of the test VM. Checks the tavi_log module from user space, then, when the image
# holds them, runs tavi_daemon against the event-service simulator. Prints "ok - NAME" or
# "not ok - NAME" per check, one verdict line "TAVI-VM: PASS ..." or "TAVI-VM: FAIL ...",
# and resets the machine, which ends qemu.

/bin/busybox mkdir -p /proc /sys /dev /tmp /run
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t sysfs sysfs /sys
/bin/busybox mount -t devtmpfs devtmpfs /dev
/bin/busybox --install -s /bin
export PATH=/bin
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /run
printf '%s\n' root:x:0:0::/:/bin/sh system:x:1000:1000::/:/bin/sh shell:x:2000:2000::/:/bin/sh >/etc/passwd

TAVI=/sys/kernel/tavi
LOG=$TAVI/log
INJECT=$TAVI/inject
MODULES=/modules
PERSIST=/mnt/vendor/persist/tavi
CACHE_FILE=$PERSIST/cache.bin
EVENTS=/tmp/events.jsonl
passed=0
failed=0

check() { # check NAME COMMAND...: runs COMMAND, counts and prints the outcome
	name=$1
	shift
	if "$@"; then
		passed=$((passed + 1))
		echo "ok - $name"
	else
		failed=$((failed + 1))
		echo "not ok - $name"
	fi
}

# The next read of the log is exactly EXPECTED plus a line feed.
next_record_is() {
	cat $LOG >/tmp/record
	printf '%s\n' "$1" | cmp -s - /tmp/record || {
		echo "  read: $(od -c /tmp/record | head -3)"
		return 1
	}
}

log_is_empty() {
	cat $LOG >/tmp/record
	[ ! -s /tmp/record ]
}

inject() { echo "$1" >$INJECT; }
rejects() { ! inject "$1" 2>/dev/null; }
mode_is() { [ "$(stat -c %a "$1")" = "$2" ]; }
file_is() { printf '%s\n' "$2" | cmp -s - "$1" || { cat "$1"; return 1; }; }

# Lines of FILE matching PATTERN (grep -E) number at least N.
has_lines() { [ "$(grep -cE "$2" "$1" 2>/dev/null)" -ge "$3" ]; }

# A process that has not ended (a zombie not yet reaped counts as ended).
running() { [ -e "/proc/$1" ] && ! grep -q ') Z ' "/proc/$1/stat"; }
ended() { ! running "$1"; }

# wait_until SECONDS COMMAND...: retries COMMAND once a second.
wait_until() {
	seconds=$1
	shift
	until "$@"; do
		[ "$seconds" -gt 0 ] || return 1
		sleep 1
		seconds=$((seconds - 1))
	done
}

finish() {
	uptime=$(cut -d' ' -f1 /proc/uptime)
	if [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]; then
		echo "TAVI-VM: PASS ($passed checks, $(uname -m), $(uname -r), ${uptime}s up)"
	else
		echo "TAVI-VM: FAIL ($failed of $((passed + failed)) checks failed, $(uname -m))"
	fi
	sync
	# qemu runs with -no-reboot: a reset ends it, with or without ACPI in the kernel.
	reboot -f
}

check_attributes() {
	check "insmod tavi_log allow_inject=1" insmod $MODULES/tavi_log.ko allow_inject=1
	check "log is 0400" mode_is $LOG 400
	check "dropped is 0444" mode_is $TAVI/dropped 444
	check "inject is 0200" mode_is $INJECT 200
	check "log refuses writes" sh -c "! echo 1,1,1,0,0,0,0 2>/dev/null >$LOG"
	check "empty read when nothing is pending" log_is_empty
	# Reading takes the record away: as init does on a device, give log to the daemon's user.
	chown 1000:1000 $LOG
	inject 1,1,4242,0,0,0,0
	check "another user cannot read log" su -s /bin/sh shell -c "! cat $LOG 2>/dev/null"
	check "the daemon's user reads the record" \
		[ "$(su -s /bin/sh system -c "cat $LOG")" = 1,1,4242,0,0,0,0 ]
}

check_one_record_per_read() {
	inject 2,3,1001,-1,0,17,5
	printf '1,0,7,1,2,3,4' >$INJECT
	inject 4,2,3002,-2147483648,2147483647,0,-1
	check "first read gives the oldest record" next_record_is 2,3,1001,-1,0,17,5
	check "record injected without a line feed" next_record_is 1,0,7,1,2,3,4
	check "extreme parameters round-trip" next_record_is 4,2,3002,-2147483648,2147483647,0,-1
	check "empty read after the last record" log_is_empty
	check "still empty" log_is_empty
	inject 1,1,1111,0,0,0,0
	inject 1,1,2222,0,0,0,0
	# Reads past offset 0 are served from the text of the read at 0: no second record.
	check "4-byte reads return one whole record" \
		[ "$(dd if=$LOG bs=4 2>/dev/null)" = 1,1,1111,0,0,0,0 ]
	check "... and leave the next one pending" next_record_is 1,1,2222,0,0,0,0
	inject 007,0,0,-0,0,0,0
	check "leading zeros and minus zero" next_record_is 7,0,0,0,0,0,0
	inject 2147483647,2147483647,2147483647,0,0,0,0
	check "largest category, level and code" next_record_is \
		2147483647,2147483647,2147483647,0,0,0,0
}

check_bad_injections() {
	for bad in "" "1,2,3" "1,2,3,4,5,6" "1,2,3,4,5,6,7,8" "-1,2,3,4,5,6,7" \
		"1,-2,3,4,5,6,7" "1,2,3,4,5,6,x" "1,,3,4,5,6,7" "1,2,3,4,5,6,7 8" \
		"2147483648,1,1,0,0,0,0" "1,1,4294967296,0,0,0,0" \
		"1,1,1,2147483648,0,0,0" "1,1,1,0,0,0,-2147483649"; do
		check "inject refuses '$bad'" rejects "$bad"
	done
	check "refused injections queue nothing" log_is_empty
}

# A reader following the listener's algorithm: a fresh descriptor reports once at once,
# so records written before the reader opened the file are drained too; every later
# record wakes it through the notification.
check_poll_wakeups() {
	pollcheck $LOG 1 500 >/tmp/poll.out
	check "nothing pending: poll() times out" [ $? -eq 1 ]
	check "... after the one empty wake-up of a fresh descriptor" file_is /tmp/poll.out \
		"$(printf 'wake 0\ntimeout after 0 of 1 records')"

	inject 1,1,1,0,0,0,0
	pollcheck $LOG 3 10000 >/tmp/poll.out &
	reader=$!
	sleep 1
	inject 1,1,2,0,0,0,0
	sleep 1
	inject 1,1,3,0,0,0,0
	wait $reader
	check "reader saw all three records" [ $? -eq 0 ]
	check "one wake-up per record, in order" file_is /tmp/poll.out \
		"$(printf '%s\n' 'record 1,1,1,0,0,0,0' 'wake 1' 'record 1,1,2,0,0,0,0' 'wake 1' \
			'record 1,1,3,0,0,0,0' 'wake 1')"
}

check_overflow() {
	refused=0
	i=0
	while [ $i -lt 130 ]; do
		inject "2,1,$i,0,0,0,0" 2>/dev/null || refused=$((refused + 1))
		i=$((i + 1))
	done
	check "a full queue refuses the newest two of 130" [ $refused -eq 2 ]
	check "dropped counts them" file_is $TAVI/dropped 2
	check "the drop is logged" sh -c 'dmesg | grep -q "tavi_log: queue full, dropped record 2,1,128"'
	pollcheck $LOG 128 1000 >/tmp/poll.out
	check "128 records drained in one wake-up" [ "$(tail -n 1 /tmp/poll.out)" = "wake 128" ]
	check "oldest kept first" [ "$(head -n 1 /tmp/poll.out)" = "record 2,1,0,0,0,0,0" ]
	check "newest kept last" [ "$(sed -n 128p /tmp/poll.out)" = "record 2,1,127,0,0,0,0" ]
	check "the queue takes records again" inject 2,1,200,0,0,0,0
	check "... and hands them out" next_record_is 2,1,200,0,0,0,0
}

check_kernel_callers() {
	check "insmod tavi_log_test (reports from every context)" insmod $MODULES/tavi_log_test.ko
	check "process context" next_record_is 1,1,901,0,0,0,0
	# PREEMPT_RT keeps interrupts on under a spinlock_t and expires the timer in softirq.
	on=1
	uname -v | grep -q PREEMPT_RT && on=0
	check "spinlock held (interrupts off: $on)" next_record_is 2,1,902,$on,0,0,0
	check "timer (in hard interrupt: $on)" next_record_is 4,1,903,$on,0,0,0
	check "rmmod tavi_log_test" rmmod tavi_log_test
}

check_reload() {
	check "rmmod tavi_log" rmmod tavi_log
	check "directory removed" [ ! -e $TAVI ]
	check "insmod tavi_log without allow_inject" insmod $MODULES/tavi_log.ko
	check "no inject attribute by default" [ ! -e $INJECT ]
	check "log present" [ -r $LOG ]
	rmmod tavi_log
	# inject must never notify a log node not yet looked up (or already gone).
	while :; do echo 1,1,1,0,0,0,0 >$INJECT; done 2>/dev/null &
	writer=$!
	loads=0
	while [ $loads -lt 10 ] && insmod $MODULES/tavi_log.ko allow_inject=1 && rmmod tavi_log; do
		loads=$((loads + 1))
	done
	kill $writer
	check "10 loads and unloads while inject is written" [ $loads -eq 10 ]
	check "insmod tavi_log allow_inject=1 again" insmod $MODULES/tavi_log.ko allow_inject=1
	pollcheck $LOG 1 20000 >/tmp/poll.out 2>&1 &
	reader=$!
	sleep 1
	rmmod tavi_log
	wait $reader
	check "unloading wakes a reader in poll(), whose read then fails" [ $? -eq 2 ]
	check "... with ENODEV" grep -q "No such device" /tmp/poll.out
	check "no warning from the kernel" sh -c '! dmesg | grep -E "BUG:|WARNING:|Oops|sleeping function"'
	insmod $MODULES/tavi_log.ko allow_inject=1
}

# The daemon against the simulator: records cached while the service is down, saved at
# SIGTERM, reloaded by the next run and replayed once the service is active, then live
# delivery. A daemon waits for its readiness task after a stop, so run 1 lingers until
# the service turns active.
check_daemon() {
	export UBO_SIM_SOCKET=/run/ubo_sim/ubo.sock
	export LD_LIBRARY_PATH=/lib
	mkdir -p $PERSIST /run/ubo_sim
	ubo_sim --events $EVENTS --proto /etc/tavi.proto >/tmp/ubo_sim.log 2>&1 &
	sim=$!
	check "simulator up" wait_until 10 sh -c 'ubo_simctl status >/dev/null 2>&1'

	tavi_daemon 2>/tmp/daemon1.log &
	run1=$!
	check "run 1 polls" wait_until 20 has_lines /tmp/daemon1.log "poll\(\) loop starting" 1
	inject 2,1,1000,11,12,13,14
	inject 4,2,3002,1,2,3,-3
	inject 3,0,2000,1,0,0,0
	check "run 1 caches three records" \
		wait_until 10 has_lines /tmp/daemon1.log "Store the message in the cache" 3
	kill -TERM $run1
	check "run 1 ends on SIGTERM" wait_until 10 has_lines /tmp/daemon1.log "tavi_daemon ended" 1
	check "cache file written" [ -s $CACHE_FILE ]
	check "cache file mode 0600" mode_is $CACHE_FILE 600

	tavi_daemon 2>/tmp/daemon2.log &
	run2=$!
	check "run 2 polls" wait_until 20 has_lines /tmp/daemon2.log "poll\(\) loop starting" 1
	inject 4,1,3000,0,5,0,0
	check "run 2 caches its record" \
		wait_until 10 has_lines /tmp/daemon2.log "Store the message in the cache" 1
	check "ubo_simctl active" ubo_simctl active
	# Up to a minute: the readiness task pauses that long after ten failed attempts.
	check "run 2 replays four records" wait_until 90 has_lines $EVENTS '"kind":"event"' 4
	grep -o '"probe":"[A-Za-z]*"' $EVENTS | cut -d'"' -f4 >/tmp/probes
	check "replayed in order: this run's record, then the saved ones" file_is /tmp/probes \
		"$(printf '%s\n' TaviChargerDetectInvalidBattery TaviLinuxOsBadSector \
			TaviChargerDetectSocFreeze TaviDisplayShort)"
	check "cache file deleted once loaded" [ ! -e $CACHE_FILE ]
	check "every event from source tavi" [ "$(grep -c '"source":"tavi"' $EVENTS)" -eq 4 ]

	inject 2,2,1001,9,0,0,0
	check "live record delivered" \
		wait_until 10 has_lines $EVENTS '"probe":"TaviLinuxOsMmcRecoveryFailure"' 1
	grep -o '"fields":{[^}]*}' $EVENTS >/tmp/fields
	check "every field carried from the kernel record to the event" file_is /tmp/fields \
		"$(printf '%s\n' \
			'"fields":{"log_level":1,"error_code":3000,"param1":false,"param2":5}' \
			'"fields":{"log_level":1,"error_code":1000,"param1":11,"param2":12,"param3":13}' \
			'"fields":{"log_level":2,"error_code":3002,"param1":1,"param2":2,"param3":3,"param4":true}' \
			'"fields":{"log_level":0,"error_code":2000,"param1":true}' \
			'"fields":{"log_level":2,"error_code":1001,"param1":9}')"
	# Its readiness task may be in its one-minute pause.
	check "run 1 ends once the service is active" wait_until 70 ended $run1
	running $run1 && kill -KILL $run1
	wait $run1
	check "... with status 0" [ $? -eq 0 ]
	kill -INT $run2
	check "run 2 ends on SIGINT" wait_until 10 ended $run2
	running $run2 && kill -KILL $run2
	wait $run2
	check "... with status 0" [ $? -eq 0 ]
	check "SIGTERM left run 1's session open" \
		has_lines $EVENTS '"kind":"session_lost",.*"session":1}' 1
	check "SIGINT closed run 2's session" \
		has_lines $EVENTS '"kind":"session_destroyed",.*"session":2}' 1
	kill -TERM $sim
	wait_until 10 ended $sim || kill -KILL $sim
	wait $sim
	for f in /tmp/daemon1.log /tmp/daemon2.log $EVENTS; do
		echo "--- $f"
		cat "$f"
	done
}

echo
echo "TAVI-VM: start $(uname -m) $(uname -r), $(cut -d' ' -f1 /proc/uptime)s up"
check_attributes
check_one_record_per_read
check_bad_injections
check_poll_wakeups
check_overflow
check_kernel_callers
check_reload
if [ -x /bin/tavi_daemon ]; then
	check_daemon
else
	echo "TAVI-VM: no daemon in this image, kernel checks only"
fi
check "drain benchmark ran" drainbench 3 /bin/tavi_daemon /lib/ubo-stub
finish
