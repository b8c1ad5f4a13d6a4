#!/usr/bin/env bash
# Checks the vendor SELinux policy in sepolicy/ off-device: compiles it into a small stand-in
# of the platform policy (the classes, attributes, types and macros it uses), asserts that it
# grants what the daemon needs and nothing beyond, validates the file contexts against the
# compiled policy and looks up the labels of the daemon's paths. What needs the full platform
# policy (its neverallow rules and attribute definitions) or a device (labels at run time) is
# beyond this check.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
policy_dir=$root/sepolicy
"$root/scripts/setup.sh" checkpolicy m4 policycoreutils selinux-utils

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Object classes and permissions as the kernel defines them, cut to what the policy names.
cat >"$work/classes" <<'EOF'
class dir
class file
class process
class capability

sid kernel

common file { ioctl read write create getattr setattr lock relabelfrom relabelto append map
    unlink link rename execute quotaon mounton audit_access open execmod watch watch_mount
    watch_sb watch_with_perm watch_reads }
class dir inherits file { add_name remove_name reparent search rmdir }
class file inherits file { execute_no_trans entrypoint }
class process { fork transition sigchld sigkill sigstop signull signal ptrace getsched
    setsched getsession getpgid setpgid getcap setcap share getattr setexec setfscreate
    noatsecure siginh setrlimit rlimitinh dyntransition setcurrent execmem execstack execheap
    setkeycreate setsockcreate getrlimit }
class capability { chown dac_override dac_read_search fowner fsetid kill setgid setuid
    setpcap linux_immutable net_bind_service net_broadcast net_admin net_raw ipc_lock
    ipc_owner sys_module sys_rawio sys_chroot sys_ptrace sys_pacct sys_admin sys_boot sys_nice
    sys_resource sys_time sys_tty_config mknod lease audit_write audit_control setfcap }

sensitivity s0;
dominance { s0 }
category c0;
level s0:c0;
# The policy language wants at least one MLS constraint.
mlsconstrain file { write } ( l1 eq l2 );
EOF

# The platform's permission sets and domain macros the policy uses, with their meaning.
cat >"$work/macros" <<'EOF'
define(`r_file_perms', `{ getattr open read ioctl lock map watch watch_reads }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`rw_dir_perms', `{ r_dir_perms add_name remove_name write }')
define(`domain_trans', `
allow $1 $2:file { getattr open read execute map };
allow $1 $3:process transition;
allow $3 $2:file { entrypoint open read execute getattr map };
allow $3 $1:process sigchld;
dontaudit $3 $1:process noatsecure;
allow $1 $3:process { siginh rlimitinh };
')
define(`domain_auto_trans', `domain_trans($1, $2, $3)
type_transition $1 $2:process $3;
')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
EOF

# The attributes and types the platform defines and the policy refers to.
cat >"$work/platform.te" <<'EOF'
attribute domain;
attribute file_type;
attribute exec_type;
attribute vendor_file_type;
attribute fs_type;
attribute sysfs_type;
attribute vendor_persist_type;
type kernel, domain;
type init, domain;
type sysfs, fs_type, sysfs_type;
type mnt_vendor_file, file_type;
EOF

# Nothing beyond the daemon's needs: no capabilities, the attribute read-only, the cache
# folder kept as init made it, no other file or folder touched, no other process signalled.
cat >"$work/narrow.te" <<'EOF'
neverallow tavi_daemon self:capability *;
neverallow tavi_daemon sysfs_tavi:file ~r_file_perms;
neverallow tavi_daemon persist_tavi_file:dir ~rw_dir_perms;
neverallow tavi_daemon mnt_vendor_file:dir ~search;
neverallow tavi_daemon { file_type fs_type -sysfs_tavi -persist_tavi_file -tavi_daemon_exec }:file *;
neverallow tavi_daemon { file_type fs_type -persist_tavi_file -mnt_vendor_file }:dir *;
neverallow tavi_daemon { domain -init }:process *;
neverallow tavi_daemon init:process ~sigchld;
EOF

cat >"$work/tail" <<'EOF'
role r;
role r types domain;
user u roles { r object_r } level s0 range s0 - s0:c0;

sid kernel u:r:kernel:s0
genfscon sysfs / u:object_r:sysfs:s0
EOF

m4 -s "$work/macros" "$work/classes" "$work/platform.te" "$policy_dir"/file.te \
    "$policy_dir"/tavi_daemon.te "$work/narrow.te" "$work/tail" \
    "$policy_dir/genfs_contexts" >"$work/policy.conf"
checkpolicy -M -c 30 -o "$work/policy" "$work/policy.conf" >/dev/null
setfiles -c "$work/policy" "$policy_dir/file_contexts"

# What the daemon does on the device must be granted. checkpolicy's debug mode answers for the
# compiled policy; it numbers contexts as it meets them, after the kernel's 1.
ask_policy() { checkpolicy -M -b -d "$work/policy" 2>/dev/null; }
fail() {
    echo "check-sepolicy: $*" >&2
    exit 1
}
expect_allowed() {
    local source=$1 target=$2 class=$3 granted permission
    shift 3
    granted=" $(printf '2\n%s\n2\n%s\n0\n2\n3\n%s\nq\n' "$source" "$target" "$class" |
        ask_policy | sed -n 's/.*allowed { \(.*\) }$/\1/p') "
    for permission in "$@"; do
        [[ "$granted" == *" $permission "* ]] ||
            fail "$source lacks $permission on $target:$class (has:$granted)"
    done
}
daemon=u:r:tavi_daemon:s0
cache=u:object_r:persist_tavi_file:s0
exec=u:object_r:tavi_daemon_exec:s0
expect_allowed u:r:init:s0 "$exec" file execute read open getattr
expect_allowed u:r:init:s0 "$daemon" process transition
expect_allowed "$daemon" "$exec" file entrypoint
expect_allowed "$daemon" u:object_r:sysfs_tavi:s0 file open read getattr
expect_allowed "$daemon" u:object_r:mnt_vendor_file:s0 dir search
expect_allowed "$daemon" "$cache" dir search write add_name remove_name
expect_allowed "$daemon" "$cache" file create open read write getattr setattr unlink

started_as=$(printf '2\nu:r:init:s0\n2\n%s\n3\n2\n3\nprocess\n1\n4\nq\n' "$exec" |
    ask_policy | sed -n 's/^scontext //p')
[[ "$started_as" == "$daemon" ]] || fail "init starts the daemon as \"$started_as\""
sysfs_label() {
    printf 'd\nsysfs\n%s\n%s\n1\n2\nq\n' "$1" "$2" | ask_policy | sed -n 's/^scontext //p'
}
[[ "$(sysfs_label /kernel/tavi/log file)" == u:object_r:sysfs_tavi:s0 ]] ||
    fail "/sys/kernel/tavi/log is not labeled sysfs_tavi"
[[ "$(sysfs_label /kernel/tavi dir)" == u:object_r:sysfs:s0 ]] ||
    fail "/sys/kernel/tavi is not left to the platform's sysfs label"

# The labels of the daemon's paths, and a neighbour that stays the partition's.
label_of() {
    selabel_lookup -b file -f "$policy_dir/file_contexts" -k "$1" 2>&1 | sed 's/.*: //' || true
}
expect_label() {
    local label
    label=$(label_of "$1")
    [[ "$label" == "$2" ]] || fail "$1 is labeled \"$label\", expected $2"
}
expect_label /vendor/bin/tavi_daemon "$exec"
expect_label /mnt/vendor/persist/tavi "$cache"
expect_label /mnt/vendor/persist/tavi/cache.bin "$cache"
expect_label /mnt/vendor/persist/tavi_other "selabel_lookup failed to find a valid context."
echo "check-sepolicy: policy compiles, grants what the daemon needs and nothing more"
