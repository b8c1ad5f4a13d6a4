#!/bin/busybox sh
# SPDX-License-Identifier: Apache-2.0
# /init of the test VM: what only the tavi_log module has, checked from user space, then the
# end-to-end suite against its attribute when the image holds it. "ok - NAME" or "not ok - NAME"
# per check and case, one line "TAVI-VM: PASS ..." or "TAVI-VM: FAIL ...", and a reset ends qemu.

/bin/busybox mkdir -p /proc /sys /dev /tmp /run
/bin/busybox --install -s /bin
export PATH=/bin
for fs in proc:/proc sysfs:/sys devtmpfs:/dev tmpfs:/tmp tmpfs:/run; do
	mount -t "${fs%:*}" "${fs%:*}" "${fs#*:}"
done
printf '%s\n' root:x:0:0::/:/bin/sh system:x:1000:1000::/:/bin/sh shell:x:2000:2000::/:/bin/sh >/etc/passwd

TAVI=/sys/kernel/tavi LOG=/sys/kernel/tavi/log INJECT=/sys/kernel/tavi/inject MODULES=/modules
passed=0 failed=0

count() { # count OK|NOT_OK NAME: counts and prints one outcome
	if [ "$1" = OK ]; then passed=$((passed + 1)) && echo "ok - $2"
	else failed=$((failed + 1)) && echo "not ok - $2"; fi
}
check() { # check NAME COMMAND...: runs COMMAND, counts and prints the outcome
	name=$1 && shift
	if "$@"; then count OK "$name"; else count NOT_OK "$name"; fi
}

next_record_is() { # the next read of the log is exactly EXPECTED plus a line feed
	cat $LOG >/tmp/record
	printf '%s\n' "$1" | cmp -s - /tmp/record || { echo "  read: $(od -c /tmp/record | head -3)" && return 1; }
}
inject() { echo "$1" >$INJECT; }
rejects() { ! inject "$1" 2>/dev/null; }
mode_is() { [ "$(stat -c %a "$1")" = "$2" ]; }

# run_suite BINARY: a gtest binary against the module's attribute, waits scaled by tavi.wait_scale=N;
# each case is a check. The summary, named skips and, after a failure, all output go to the console.
run_suite() {
	scale=$(sed -n 's/.*tavi\.wait_scale=\([0-9]*\).*/\1/p' /proc/cmdline)
	TAVI_ATTRIBUTE=kernel TAVI_BUILD_DIR=/build TAVI_WAIT_SCALE=${scale:-1} LD_LIBRARY_PATH=/lib \
		UBO_SIM_PROTO=/etc/tavi.proto "$1" >/tmp/suite.out 2>&1
	check "${1##*/} exits with status 0" [ $? -eq 0 ]
	sed -n 's/^\[ *\(OK\|FAILED\|SKIPPED\) *\] \([^ ,]*\).* ([0-9]* ms)$/\1 \2/p' /tmp/suite.out |
		sed 's/^FAILED/NOT_OK/; s/^SKIPPED \(.*\)/OK \1 # SKIP/' >/tmp/cases
	while read -r outcome case; do count "$outcome" "$case"; done </tmp/cases
	grep -E "^\[==========\] .* ran|^\[  (PASSED|FAILED|SKIPPED) +\] [0-9]|not on the kernel's" \
		/tmp/suite.out | sed 's/^/suite: /'
	! grep -q '^\[  FAILED  \]' /tmp/suite.out || sed 's/^/suite: /' /tmp/suite.out
}

printf '\n%s\n' "TAVI-VM: start $(uname -m) $(uname -r), $(cut -d' ' -f1 /proc/uptime)s up"
# The attributes and who may use them.
check "insmod tavi_log allow_inject=1" insmod $MODULES/tavi_log.ko allow_inject=1
check "log is 0400" mode_is $LOG 400
check "dropped is 0444" mode_is $TAVI/dropped 444
check "inject is 0200" mode_is $INJECT 200
check "log refuses writes" sh -c "! echo 1,1,1,0,0,0,0 2>/dev/null >$LOG"
# Reading takes the record away: as init does on a device, give log to the daemon's user.
chown 1000:1000 $LOG
inject 1,1,4242,0,0,0,0
check "another user cannot read log" su -s /bin/sh shell -c "! cat $LOG 2>/dev/null"
check "the daemon's user reads the record" [ "$(su -s /bin/sh system -c "cat $LOG")" = 1,1,4242,0,0,0,0 ]

# The module queues only seven integers and prints them itself.
printf '1,0,7,1,2,3,4' >$INJECT
check "record injected without a line feed" next_record_is 1,0,7,1,2,3,4
inject 007,0,0,-0,0,0,0
check "leading zeros and minus zero" next_record_is 7,0,0,0,0,0,0
for bad in "" "1,2,3" "1,2,3,4,5,6" "1,2,3,4,5,6,7,8" "-1,2,3,4,5,6,7" "1,-2,3,4,5,6,7" "1,2,3,4,5,6,x" \
	"1,,3,4,5,6,7" "1,2,3,4,5,6,7 8" "2147483648,1,1,0,0,0,0" "1,1,4294967296,0,0,0,0" \
	"1,1,1,2147483648,0,0,0" "1,1,1,0,0,0,-2147483649"; do
	check "inject refuses '$bad'" rejects "$bad"
done
check "refused injections queue nothing" [ -z "$(cat $LOG)" ]

# A full queue keeps the oldest 128.
refused=0
for i in $(seq 0 129); do inject "2,1,$i,0,0,0,0" 2>/dev/null || refused=$((refused + 1)); done
check "a full queue refuses the newest two of 130" [ $refused -eq 2 ]
check "dropped counts them" [ "$(cat $TAVI/dropped)" = 2 ]
check "the drop is logged" sh -c 'dmesg | grep -q "tavi_log: queue full, dropped record 2,1,128"'
pollcheck $LOG 128 1000 >/tmp/poll.out
check "128 records drained in one wake-up" [ "$(tail -n 1 /tmp/poll.out)" = "wake 128" ]
check "oldest kept first" [ "$(head -n 1 /tmp/poll.out)" = "record 2,1,0,0,0,0,0" ]
check "newest kept last" [ "$(sed -n 128p /tmp/poll.out)" = "record 2,1,127,0,0,0,0" ]
check "the queue takes records again" inject 2,1,200,0,0,0,0
check "... and hands them out" next_record_is 2,1,200,0,0,0,0

check "insmod tavi_log_test (reports from every context)" insmod $MODULES/tavi_log_test.ko
check "process context" next_record_is 1,1,901,0,0,0,0
# PREEMPT_RT keeps interrupts on under a spinlock_t and expires the timer in softirq.
on=$(uname -v | grep -q PREEMPT_RT && echo 0 || echo 1)
check "spinlock held (interrupts off: $on)" next_record_is 2,1,902,$on,0,0,0
check "timer (in hard interrupt: $on)" next_record_is 4,1,903,$on,0,0,0
check "rmmod tavi_log_test" rmmod tavi_log_test

# Unloading and loading again.
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

[ -x /build/src/tavi_daemon ] || echo "TAVI-VM: no daemon in this image, kernel checks only"
for suite in /build/tests/tavi_*_tests; do [ -x "$suite" ] && run_suite "$suite"; done
check "drain benchmark ran" drainbench 3 /build/src/tavi_daemon /lib/ubo-stub
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ] &&
	echo "TAVI-VM: PASS ($passed checks, $(uname -m), $(uname -r), $(cut -d' ' -f1 /proc/uptime)s up)" ||
	echo "TAVI-VM: FAIL ($failed of $((passed + failed)) checks failed, $(uname -m))"
sync
# qemu runs with -no-reboot: a reset ends it, with or without ACPI in the kernel.
reboot -f
