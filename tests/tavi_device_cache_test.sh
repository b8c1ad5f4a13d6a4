#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks `tavi-device cache FILE` against hand-made cache files: one entry per case, its
# expected verdict, and the file left exactly as it was.
#
# usage: tavi_device_cache_test.sh PATH_TO_TAVI_DEVICE
set -euo pipefail

device=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# name | entry bytes (printf format, terminator included where wanted) | expected output line
cases=(
    'charger with a negative param|0\0004\0003\0003001\0000\000-5\0000\0000\000\0\0\n|#0 Message {Type: LOG, Category: 4, LogLevel: 3, ErrorCode: 3001, Param1: 0, Param2: -5, Param3: 0, Param4: 0, Message: }'
    'text and a debug type|1\0003\0001\0002000\0001\0002\0003\0004\000hi\0\0\n|#0 Message {Type: DEBUG_LOG, Category: 3, LogLevel: 1, ErrorCode: 2000, Param1: 1, Param2: 2, Param3: 3, Param4: 4, Message: hi}'
    'int32 extremes|0\0004\0003\0003001\000-2147483648\0002147483647\0000\0000\000\0\0\n|#0 Message {Type: LOG, Category: 4, LogLevel: 3, ErrorCode: 3001, Param1: -2147483648, Param2: 2147483647, Param3: 0, Param4: 0, Message: }'
    'leading zeros and trailing bytes|0\0004\0003\000000000000003001x\0000\0000\0000\0000\000\0\0\n|#0 Message {Type: LOG, Category: 4, LogLevel: 3, ErrorCode: 3001, Param1: 0, Param2: 0, Param3: 0, Param4: 0, Message: }'
    'negative category|0\000-1\0003\0003001\0000\0000\0000\0000\000\0\0\n|#0 bad entry: category not accepted'
    'param with trailing bytes|0\0004\0003\0003001\0000\0005x\0000\0000\000\0\0\n|#0 bad entry: param2 not accepted'
    'param above int32|0\0004\0003\0003001\0000\0000\0000\0002147483648\000\0\0\n|#0 bad entry: param4 is outside the 32-bit range (the daemon would abort on it)'
    'refused before a number out of range|0\000-1\0003\0003001\0000\0000\0000\0002147483648\000\0\0\n|#0 bad entry: category not accepted'
    'negative out of range where no sign is taken|0\000-99999999999\0003\0003001\0000\0000\0000\0000\000\0\0\n|#0 bad entry: category not accepted'
    'eleven digits|0\0004\0003\00012345678901\0000\0000\0000\0000\000\0\0\n|#0 bad entry: error_code is outside the 32-bit range (the daemon would abort on it)'
    'too few fields|garbage\0\0\n|#0 bad entry: 1 field, 9 expected'
    'text holding a NUL|0\0004\0003\0003001\0000\0000\0000\0000\000a\000b\0\0\n|#0 bad entry: 10 fields, 9 expected'
    'no terminator|0\0004\0003\0003001\0000\0000\0000\0000\000tail|#0 (no terminator) Message {Type: LOG, Category: 4, LogLevel: 3, ErrorCode: 3001, Param1: 0, Param2: 0, Param3: 0, Param4: 0, Message: tail}'
)

fail() {
    echo "FAIL: $1" >&2
    failures=$((failures + 1))
}

check_case() {
    local name=$1 bytes=$2 expected=$3
    local file="$work/cache.bin" output before after
    # shellcheck disable=SC2059  # the entry is a printf format on purpose
    printf "$bytes" > "$file"
    chmod 0600 "$file"
    before=$(stat -c '%s %a %Y' "$file"; md5sum < "$file")
    if ! output=$("$device" cache "$file"); then
        fail "$name: exit status $?"
        return
    fi
    after=$(stat -c '%s %a %Y' "$file"; md5sum < "$file")
    grep -qxF -- "$expected" <<< "$output" || fail "$name: no line '$expected' in:
$output"
    grep -qE "^$file: [0-9]+ bytes, mode 0600, owner [0-9]+:[0-9]+$" <<< "$output" ||
        fail "$name: header missing"
    [[ "$before" == "$after" ]] || fail "$name: the file changed"
}

for entry in "${cases[@]}"; do
    IFS='|' read -r name bytes expected <<< "$entry"
    check_case "$name" "$bytes" "$expected"
done

# Two entries, hex bytes, the summary, and empty pieces between terminators skipped.
printf '0\0004\0003\0003001\0000\000-5\0000\0000\000\0\0\n\0\0\nx\0\0\n' > "$work/two.bin"
output=$("$device" cache "$work/two.bin")
grep -qxF '    30 00 34 00 33 00 33 30 30 31 00 30 00 2D 35 00 30 00 30 00' <<< "$output" ||
    fail "hex line missing in: $output"
grep -qxF '2 entries, 1 bad' <<< "$output" || fail "summary missing in: $output"

if "$device" cache "$work/missing.bin" 2> /dev/null; then fail "a missing file is not an error"; fi
if "$device" cache "$work/two.bin" "$work/two.bin" 2> /dev/null; then
    fail "two files are not a usage error"
fi

[[ $failures -eq 0 ]] || exit 1
echo "tavi-device cache: all ${#cases[@]} cases and the checks around them pass"
