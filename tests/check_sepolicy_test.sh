#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The policy check must reject a policy the platform build rejects. Each case is the project's
# policy plus one line (or one edit); the check must fail, naming the rule or the error.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
check=$root/scripts/check-sepolicy.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

bash "$check" >"$work/log" 2>&1 || {
    cat "$work/log"
    echo "FAIL: the project's policy does not pass"
    failures=1
}

# name | line added to tavi_daemon.te (or a sed edit, "sed:EXPR") | text the check must print
cases=(
    "undeclared attribute|typeattribute persist_tavi_file vendor_persist_type;|is not declared"
    "undeclared type|allow tavi_daemon persist_file:dir search;|unknown type"
    "file created in sysfs|allow tavi_daemon sysfs:dir { write add_name };|platform_neverallows.te"
    "write to a kernel helper path|allow tavi_daemon sysfs_usermodehelper:file { open write };|platform_neverallows.te"
    "opens core data files|allow tavi_daemon system_data_file:file { open write };|platform_neverallows.te"
    "capability on itself|allow tavi_daemon self:capability dac_override;|platform_neverallows.te"
    "entered from a system file|sed:s/exec_type, vendor_file_type, file_type/exec_type, file_type/|platform_neverallows.te"
    "broader than the daemon needs|allow tavi_daemon persist_tavi_file:file rename;|narrow.te"
    "another domain reads the log|allow kernel sysfs_tavi:file read;|tavi_daemon.te"
)
for entry in "${cases[@]}"; do
    IFS='|' read -r name change expected <<<"$entry"
    rm -rf "$work/policy" && cp -r "$root/sepolicy" "$work/policy"
    if [[ $change == sed:* ]]; then
        sed -i "${change#sed:}" "$work/policy/tavi_daemon.te"
    else
        echo "$change" >>"$work/policy/tavi_daemon.te"
    fi
    if bash "$check" "$work/policy" >"$work/log" 2>&1; then
        echo "FAIL: $name: the check passed"
        failures=1
    elif ! grep -q "$expected" "$work/log"; then
        cat "$work/log"
        echo "FAIL: $name: the check failed without \"$expected\""
        failures=1
    else
        echo "ok: $name"
    fi
done
exit "$failures"
