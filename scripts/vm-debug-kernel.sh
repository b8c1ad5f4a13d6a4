#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the VM's kernel checks (no daemon) under a kernel built to catch what a stock kernel lets
# pass: sleeping in atomic context (DEBUG_ATOMIC_SLEEP), lock-order and lock-nesting faults
# (PROVE_LOCKING, PROVE_RAW_LOCK_NESTING) and memory errors (KASAN). Any such report in dmesg
# fails the run.
#
# The kernel is Debian's linux-source-6.1, x86_64 tinyconfig plus vm/debug-kernel.config, built
# once into TAVI_VM_CACHE (default /var/cache/tavi-vm, outside the clone) and rebuilt only when
# the source package or the config fragment changes.
#
# Usage: scripts/vm-debug-kernel.sh   (settings of scripts/vm-test.sh apply)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cache_dir=${TAVI_VM_CACHE:-/var/cache/tavi-vm}
"$root/scripts/setup.sh" linux-source-6.1 flex bison bc libelf-dev libssl-dev

version=$(dpkg-query -W -f='${Version}' linux-source-6.1)
src="$cache_dir/debug-kernel/linux-source-6.1"
out="$cache_dir/debug-kernel/build-x86_64"
# Only the options count: a change to the fragment's comments keeps the built kernel.
stamp="$version $(grep '^CONFIG_' "$root/vm/debug-kernel.config" | sha256sum | cut -d' ' -f1)"
make_kernel() { nice -n 10 make -s -C "$src" O="$out" ARCH=x86_64 "$@"; }

if [[ "$(cat "$out/.tavi-stamp" 2>/dev/null)" != "$stamp" ]]; then
    if [[ "$(cat "$src/.tavi-version" 2>/dev/null)" != "$version" ]]; then
        echo "vm-debug-kernel: unpacking linux-source-6.1 $version"
        rm -rf "$src" "$out"
        mkdir -p "$(dirname "$src")"
        tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$(dirname "$src")"
        echo "$version" >"$src/.tavi-version"
    fi
    mkdir -p "$out"
    make_kernel tinyconfig >/dev/null
    "$src/scripts/kconfig/merge_config.sh" -m -O "$out" "$out/.config" \
        "$root/vm/debug-kernel.config" >/dev/null
    make_kernel olddefconfig
    # merge_config.sh only warns about an option the kernel dropped; a checker missing would
    # make the run prove nothing.
    while read -r option; do
        grep -qx "$option" "$out/.config" || { echo "vm-debug-kernel: $option did not stick" >&2; exit 1; }
    done < <(grep '^CONFIG_' "$root/vm/debug-kernel.config")
    echo "vm-debug-kernel: building the kernel in $out (once per machine: up to an hour on two busy cores)"
    start=$SECONDS
    make_kernel -j"$(nproc)" bzImage modules modules_prepare
    echo "vm-debug-kernel: kernel built in $((SECONDS - start))s"
    echo "$stamp" >"$out/.tavi-stamp"
fi

export TAVI_VM_KERNEL="$out/arch/x86/boot/bzImage" TAVI_VM_KDIR="$out" TAVI_VM_DAEMON=0
export BUILD_DIR=${BUILD_DIR:-$root/build-vm-debug}
# KASAN and lockdep under emulation: several times slower than the stock kernel.
export VM_TIMEOUT=${VM_TIMEOUT:-600}
status=0
bash "$root/scripts/vm-test.sh" x86_64 || status=$?
# Reports after the checks' own look at dmesg (at power-off, say) reach only the console.
if grep -E 'BUG:|WARNING:|Oops' "$BUILD_DIR/console-x86_64.log.txt"; then
    echo "vm-debug-kernel: the kernel reported a fault" >&2
    status=1
fi
exit $status
