#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the vendor SELinux policy off-device: compiles it with checkpolicy into a stand-in of
# the platform policy, with the platform's own neverallow rules that bind a vendor daemon, then
# asks setools (sesearch, seinfo) whether it grants what the daemon needs and labels its sysfs
# attribute, validates the file contexts and looks up the labels of the daemon's paths.
#
# Everything in the stand-in is copied from the public platform policy (system/sepolicy of
# Android 13, 14 and 15; the files named are those of Android 15, where several rules moved
# from public/ to private/): a name the platform does not declare makes the check fail as the
# real build would. The labels at run time can only be checked on a device.
#
# Usage: check-sepolicy.sh [POLICY_DIR]   (default: sepolicy/)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
policy_dir=$(cd "${1:-$root/sepolicy}" && pwd)
"$root/scripts/setup.sh" checkpolicy m4 policycoreutils selinux-utils setools

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# private/security_classes and private/access_vectors: the classes the policies here name,
# with their permissions exactly as declared there.
cat >"$work/classes" <<'EOF'
class process
class capability
class file
class dir
class lnk_file
class chr_file
class blk_file
class sock_file
class fifo_file
class cap_userns

sid kernel

common file { ioctl read write create getattr setattr lock relabelfrom relabelto append map
    unlink link rename execute quotaon mounton audit_access open execmod watch watch_mount
    watch_sb watch_with_perm watch_reads }
common cap { chown dac_override dac_read_search fowner fsetid kill setgid setuid setpcap
    linux_immutable net_bind_service net_broadcast net_admin net_raw ipc_lock ipc_owner
    sys_module sys_rawio sys_chroot sys_ptrace sys_pacct sys_admin sys_boot sys_nice
    sys_resource sys_time sys_tty_config mknod lease audit_write audit_control setfcap }
class process { fork transition sigchld sigkill sigstop signull signal ptrace getsched
    setsched getsession getpgid setpgid getcap setcap share getattr setexec setfscreate
    noatsecure siginh setrlimit rlimitinh dyntransition setcurrent execmem execstack execheap
    setkeycreate setsockcreate getrlimit }
class capability inherits cap
class file inherits file { execute_no_trans entrypoint }
class dir inherits file { add_name remove_name reparent search rmdir }
class lnk_file inherits file
class chr_file inherits file { execute_no_trans entrypoint }
class blk_file inherits file
class sock_file inherits file
class fifo_file inherits file
class cap_userns inherits cap

sensitivity s0;
dominance { s0 }
category c0;
level s0:c0;
# The policy language wants at least one MLS constraint.
mlsconstrain file { write } ( l1 eq l2 );
EOF

# public/global_macros (class sets, permission sets) and public/te_macros (domain
# transitions), as defined there.
cat >"$work/macros" <<'EOF'
define(`global_capability_class_set', `{ capability cap_userns }')
define(`devfile_class_set', `{ chr_file blk_file }')
define(`notdevfile_class_set', `{ file lnk_file sock_file fifo_file }')
define(`file_class_set', `{ devfile_class_set notdevfile_class_set }')
define(`r_file_perms', `{ getattr open read ioctl lock map watch watch_reads }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`w_dir_perms', `{ open search write add_name remove_name lock }')
define(`rw_dir_perms', `{ r_dir_perms w_dir_perms }')
define(`domain_trans', `
allow $1 $2:file { getattr open read execute map };
allow $1 $3:process transition;
allow $3 $2:file { entrypoint open read execute getattr map };
ifelse($1, `init', `', `allow $3 $1:process sigchld;')
dontaudit $1 $3:process noatsecure;
allow $1 $3:process { siginh rlimitinh };
')
define(`domain_auto_trans', `domain_trans($1,$2,$3)
type_transition $1 $2:process $3;
')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
EOF

# public/attributes, and the platform types the rules here name with the attributes
# public/*.te gives them (init.te, vendor_init.te, ueventd.te, kernel.te, file.te); the
# coredomain lines are those of private/init.te, ueventd.te and kernel.te.
cat >"$work/platform.te" <<'EOF'
attribute domain;
attribute coredomain;
attribute appdomain;
attribute mlstrustedsubject;
attribute mlstrustedobject;
attribute file_type;
attribute exec_type;
attribute system_file_type;
attribute vendor_file_type;
attribute data_file_type;
attribute core_data_file_type;
attribute fs_type;
attribute sysfs_type;
attribute proc_type;
attribute data_between_core_and_vendor_violators;
type kernel, domain, mlstrustedsubject;
type init, domain, mlstrustedsubject;
type init_exec, system_file_type, exec_type, file_type;
type vendor_init, domain, mlstrustedsubject;
type ueventd, domain;
type sysfs, fs_type, sysfs_type, mlstrustedobject;
type sysfs_usermodehelper, fs_type, sysfs_type;
type proc, fs_type, proc_type;
type mnt_vendor_file, file_type;
type system_data_file, file_type, data_file_type, core_data_file_type;
type vendor_data_file, file_type, data_file_type;
typeattribute init coredomain;
typeattribute ueventd coredomain;
typeattribute kernel coredomain;
type apexd, domain;
type vold, domain;
type tee, domain;
attribute hal_bluetooth;
attribute hal_wifi;
attribute hal_wifi_supplicant;
attribute hal_telephony_server;
# The domains that read every sysfs file (private/init.te, apexd.te, vold.te, ueventd.te,
# vendor_init.te, hal_*.te, vendor/tee.te), and vendor_init's chown of pseudo files.
allow { init vendor_init ueventd apexd vold tee hal_bluetooth hal_wifi hal_wifi_supplicant hal_telephony_server } sysfs_type:file read;
allow vendor_init fs_type:file { open read setattr map };
EOF

# The platform's neverallow rules that bind a vendor daemon, from private/domain.te (some in
# public/domain.te before Android 15). full_treble_only() wrappers are dropped (every device
# since Android 8 is full Treble) and dac_override_allowed is cut to the domains declared here.
cat >"$work/platform_neverallows.te" <<'EOF'
# Files cannot be created in sysfs or proc.
neverallow domain { proc_type sysfs_type }:dir { add_name create link remove_name rename reparent rmdir write };
neverallow { domain -init -ueventd } sysfs_usermodehelper:file { append write };
# Vendor domains may only reach core data by an open descriptor passed to them.
neverallow { domain -appdomain -coredomain -data_between_core_and_vendor_violators -vendor_init } core_data_file_type:file_class_set ~{ append getattr ioctl read write map };
# A vendor domain is entered only from a vendor file (or init_exec for vendor_init).
neverallow { domain -coredomain } { file_type -vendor_file_type -init_exec }:file entrypoint;
neverallow ~{ init ueventd vendor_init } self:global_capability_class_set dac_override;
neverallow * self:global_capability_class_set setfcap;
neverallow * self:process { execstack execheap };
EOF

# Nothing beyond the daemon's needs: no capabilities, the attribute read-only, the cache
# folder kept as init made it, no other file or folder touched, no other process signalled.
cat >"$work/narrow.te" <<'EOF'
neverallow tavi_daemon self:global_capability_class_set *;
neverallow tavi_daemon sysfs_tavi:file ~{ open read getattr };
neverallow tavi_daemon persist_tavi_file:dir ~{ search write add_name remove_name };
neverallow tavi_daemon persist_tavi_file:file ~{ create open read write getattr setattr unlink };
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

fail() {
    echo "check-sepolicy: $*" >&2
    exit 1
}
m4 -s "$work/macros" "$work/classes" "$work/platform.te" "$policy_dir"/*.te \
    "$work/platform_neverallows.te" "$work/narrow.te" "$work/tail" \
    "$policy_dir/genfs_contexts" >"$work/policy.conf"
checkpolicy -M -c 30 -o "$work/policy" "$work/policy.conf" >"$work/checkpolicy.log" 2>&1 || {
    cat "$work/checkpolicy.log" >&2
    fail "the policy does not compile against the platform stand-in"
}
setfiles -c "$work/policy" "$policy_dir/file_contexts"

# What the daemon does on the device must be granted. setools answers for the compiled policy,
# rules given through attributes included.
expect_allowed() {
    local source=$1 target=$2 class=$3 granted permission
    shift 3
    granted=" $(sesearch "$work/policy" -A -s "$source" -t "$target" -c "$class" |
        sed -E 's/^[^:]*:[^ ]* //; s/[{};]//g' | xargs) "
    for permission in "$@"; do
        [[ "$granted" == *" $permission "* ]] ||
            fail "$source lacks $permission on $target:$class (has:$granted)"
    done
}
expect_allowed init tavi_daemon_exec file execute read open getattr
expect_allowed init tavi_daemon process transition
expect_allowed tavi_daemon tavi_daemon_exec file entrypoint
expect_allowed tavi_daemon sysfs_tavi file open read getattr
expect_allowed vendor_init sysfs_tavi file setattr
expect_allowed tavi_daemon mnt_vendor_file dir search
expect_allowed tavi_daemon persist_tavi_file dir search write add_name remove_name
expect_allowed tavi_daemon persist_tavi_file file create open read write getattr setattr unlink

started_as=$(sesearch "$work/policy" -T -s init -t tavi_daemon_exec -c process |
    sed -n 's/.* \([^ ]*\);$/\1/p')
[[ "$started_as" == tavi_daemon ]] || fail "init starts the daemon as \"$started_as\""
# The label of a sysfs path: the longest genfscon path that begins it, as the kernel picks.
sysfs_label() {
    seinfo "$work/policy" --genfscon sysfs | awk -v path="$1" '
        $1 == "genfscon" && index(path, $3) == 1 && length($3) > length(best) {
            best = $3; label = $NF }
        END { print label }'
}
[[ "$(sysfs_label /kernel/tavi/log)" == u:object_r:sysfs_tavi:s0 ]] ||
    fail "/sys/kernel/tavi/log is not labeled sysfs_tavi"
[[ "$(sysfs_label /kernel/tavi)" == u:object_r:sysfs:s0 ]] ||
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
expect_label /vendor/bin/tavi_daemon u:object_r:tavi_daemon_exec:s0
expect_label /mnt/vendor/persist/tavi u:object_r:persist_tavi_file:s0
expect_label /mnt/vendor/persist/tavi/cache.bin u:object_r:persist_tavi_file:s0
expect_label /mnt/vendor/persist/tavi_other "selabel_lookup failed to find a valid context."
echo "check-sepolicy: policy compiles, grants what the daemon needs and nothing more"
