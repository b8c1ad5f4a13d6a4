#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Boots Debian's stock kernel under full-system emulation with the tavi_log module, the
# daemon, the event-service simulator, the end-to-end suite and a busybox initramfs, and runs
# vm/init.sh in it: the module's own checks, then the suite against the module's attribute.
#
# Usage: scripts/vm-test.sh [x86_64|arm64|all]        (default: all)
#   BUILD_DIR     work folder (default: build-vm): unpacked kernels, builds, console logs
#   TAVI_VM_CACHE downloaded packages, kept between runs and clones (default: /var/cache/tavi-vm)
#   TAVI_VM_ACCEL kvm or tcg (default: kvm when /dev/kvm opens and the guest is the host's
#                 architecture, tcg otherwise); a guest that does not boot with KVM is
#                 booted again with TCG
#   VM_TIMEOUT    seconds one VM may run (default: 600; a pass takes 70-90 s under TCG, and
#                 several times that on a loaded host)
#   TAVI_VM_WAIT_SCALE  multiplies the suite's waits (default: 1 with KVM, 4 with TCG)
#   KERNEL_ABI    Debian kernel ABI, e.g. 6.1.0-56 (default: the one linux-image-amd64 names)
#   TAVI_VM_HOST_BUILD  a configured host build whose binaries the host-architecture VM uses
#                 (default: build, the test command's; a build of its own when absent)
#   TAVI_VM_DAEMON=0  kernel checks only: no daemon, simulator, suite or libubo in the image
#   TAVI_VM_KERNEL, TAVI_VM_KDIR  boot this kernel image and build the module in this kernel
#                 build tree instead of Debian's (x86_64; scripts/vm-debug-kernel.sh sets them)
#
# The kernel packages are unpacked into BUILD_DIR, never installed: the host's kernel and
# boot files stay as they are.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-vm}
vm_timeout=${VM_TIMEOUT:-600}
cache_dir=${TAVI_VM_CACHE:-/var/cache/tavi-vm}
with_daemon=${TAVI_VM_DAEMON:-1}
mkdir -p "$build_dir"
build_dir=$(cd "$build_dir" && pwd)

say() { echo "vm-test: $*"; }
die() { say "$*" >&2; exit 1; }
quiet() { # runs a command, showing its output only when it fails
    local log
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

host_packages=(qemu-system-x86 qemu-system-arm cpio gzip libelf-dev binutils pax-utils python3)
arm64_packages=(gcc-aarch64-linux-gnu libc6-dev-arm64-cross)
if [[ "$with_daemon" == 1 ]]; then
    # The cross toolchain file also wants qemu-user for running target programs.
    arm64_packages+=(g++-aarch64-linux-gnu qemu-user android-libbase-dev:arm64
        android-liblog-dev:arm64 libprotobuf-dev:arm64 libprotoc-dev:arm64 libfuse3-dev:arm64
        libgtest-dev:arm64 libgmock-dev:arm64)
fi

setup_packages() {
    local packages=("${host_packages[@]}")
    [[ " $* " == *" arm64 "* ]] && packages+=("${arm64_packages[@]}")
    "$root/scripts/setup.sh" "${packages[@]}"
}

kernel_abi() {
    local abi=${KERNEL_ABI:-}
    if [[ -z "$abi" ]]; then
        abi=$(apt-cache depends linux-image-amd64 2>/dev/null |
            sed -n 's/^ *Depends: linux-image-\(.*\)-amd64$/\1/p' | head -n 1)
    fi
    if [[ -z "$abi" ]]; then
        apt-get update -qq
        abi=$(apt-cache depends linux-image-amd64 |
            sed -n 's/^ *Depends: linux-image-\(.*\)-amd64$/\1/p' | head -n 1)
    fi
    [[ -n "$abi" ]] || die "cannot tell the kernel ABI from linux-image-amd64"
    echo "$abi"
}

# Puts one package (NAME:ARCH as apt names it) into the download cache unless a file there
# already has the SHA256 that the package index gives; prints the file's path.
cached_package() {
    local package=$1 sha file
    sha=$(apt-cache show --no-all-versions "$package" 2>/dev/null | sed -n 's/^SHA256: //p' | head -n 1)
    [[ -n "$sha" ]] || die "the package index has no $package"
    for file in "$cache_dir/${package%%:*}"_*.deb; do
        [[ -f "$file" ]] || continue
        [[ $(sha256sum <"$file" | cut -d' ' -f1) == "$sha" ]] && { echo "$file"; return 0; }
    done
    say "downloading $package" >&2
    local part="$cache_dir/partial.$$"
    rm -rf "$part"
    mkdir -p "$part"
    (cd "$part" && quiet apt-get -o APT::Sandbox::User=root download "$package") ||
        die "cannot download $package"
    for file in "$part"/*.deb; do
        # A file cut short by an earlier, interrupted run never reaches the cache.
        [[ $(sha256sum <"$file" | cut -d' ' -f1) == "$sha" ]] || die "$package: SHA256 differs"
        mv "$file" "$cache_dir/"
        echo "$cache_dir/$(basename "$file")"
    done
    rm -rf "$part"
}

# Unpacks the kernel image, its headers (with the host's kbuild tools) and busybox-static of
# one Debian architecture into its own folder, from the download cache.
fetch_kernel() {
    local deb_arch=$1 abi=$2 dir=$3
    [[ -f "$dir/.unpacked" ]] && return 0
    local kbuild
    kbuild=$(apt-cache depends "linux-headers-$abi-amd64" 2>/dev/null |
        sed -n 's/^ *Depends: \(linux-kbuild-[0-9.]*\)$/\1/p' | head -n 1) || true
    [[ -n "$kbuild" ]] || die "cannot tell the kbuild package of linux-headers-$abi-amd64"
    mkdir -p "$cache_dir"
    local host_arch package file files=()
    host_arch=$(dpkg --print-architecture)
    # The kbuild tools run on this machine, so they are of the host's architecture.
    for package in "linux-image-$abi-$deb_arch:$deb_arch" "linux-headers-$abi-$deb_arch:$deb_arch" \
        "linux-headers-$abi-common:all" "$kbuild:$host_arch" "busybox-static:$deb_arch"; do
        file=$(cached_package "${package%:all}") || exit 1
        files+=("$file")
    done
    rm -rf "$dir"
    mkdir -p "$dir"
    for file in "${files[@]}"; do
        if [[ "$(basename "$file")" == linux-image-* ]]; then
            # Only the kernel itself: its stock modules are not needed.
            dpkg-deb --fsys-tarfile "$file" | tar -x -C "$dir" ./boot
        else
            dpkg-deb -x "$file" "$dir"
        fi
    done
    # The headers' Makefile includes the common part by absolute path.
    sed -i "s|^include /usr/src/|include $dir/usr/src/|" \
        "$dir/usr/src/linux-headers-$abi-$deb_arch/Makefile"
    touch "$dir/.unpacked"
}

build_module() {
    local arch=$1 kdir=$2 out=$3
    rm -rf "$out"
    cp -r "$root/kernel" "$out"
    local cross=()
    [[ "$arch" == arm64 ]] && cross=(ARCH=arm64 CROSS_COMPILE=aarch64-linux-gnu-)
    quiet nice make -C "$out" KDIR="$kdir" "${cross[@]}" -j2
}

# The programs the image holds, and the suites run against the module's attribute.
vm_targets=(tavi_daemon ubo_sim ubo tavi_e2e_tests tavi_listener_tests)
vm_suites=(tavi_e2e_tests tavi_listener_tests)

build_daemon() {
    local arch=$1 out=$2
    local args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVI_BUILD_TESTS=ON -DTAVI_BUILD_SIM=ON
        -DTAVI_BUILD_BENCH=OFF -DTAVI_BUILD_FUZZ=OFF)
    if [[ "$arch" == arm64 ]]; then
        args+=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64.cmake")
        export PKG_CONFIG_LIBDIR=/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig
    fi
    quiet cmake -S "$root" -B "$out" "${args[@]}"
    unset PKG_CONFIG_LIBDIR
    quiet nice cmake --build "$out" -j2 --target "${vm_targets[@]}"
}

objcopy_for() {
    local arch=$1
    shift
    if [[ "$arch" == arm64 ]]; then aarch64-linux-gnu-objcopy "$@"; else objcopy "$@"; fi
}

# Copies the shared libraries ELF files need, transitively, into STAGE/lib, and their
# program interpreter to the path they name. SEARCH (folders) comes before the ELF files'
# RUNPATH, as LD_LIBRARY_PATH does: the first folder holding a library of the ELF's
# architecture wins. The interpreter is the host's file at that path, of the same libc6
# package as the multiarch libc that SEARCH finds first: the two must match exactly.
stage_libraries() {
    local stage=$1 search=$2 interp path
    shift 2
    interp=$(lddtree_in "$search" "$1" | sed -n '1s/.*(interpreter => \(.*\))$/\1/p')
    [[ "$interp" == /* ]] || die "$1 names no program interpreter"
    mkdir -p "$stage$(dirname "$interp")"
    cp -L "$interp" "$stage$interp"
    lddtree_in "$search" --list "$@" | while read -r path; do
        [[ "$path" == /* ]] || die "no $path for $*"
        [[ " $* " == *" $path "* ]] || cp -L "$path" "$stage/lib/"
    done
}

# lddtree (pax-utils) is a script of Debian's python3, which has the ELF module it needs:
# another python3 may come first on PATH.
lddtree_in() {
    local search=$1
    shift
    # shellcheck disable=SC2086 # the folders are split on white space
    LD_LIBRARY_PATH=$(echo $search | tr ' ' :) /usr/bin/python3 /usr/bin/lddtree "$@"
}

make_initramfs() {
    local arch=$1 kernel_dir=$2 kmod=$3 daemon_build=$4 image=$5
    local stage="$build_dir/initramfs-$arch"
    rm -rf "$stage"
    mkdir -p "$stage"/{bin,lib,modules,etc,dev,proc,sys,tmp,run,mnt}
    cp "$kernel_dir/bin/busybox" "$stage/bin/busybox"
    install -m 0755 "$root/vm/init.sh" "$stage/init"
    cp "$kmod/tavi_log.ko" "$kmod/tavi_log_test.ko" "$stage/modules/"
    cp "$build_dir/pollcheck-$arch" "$stage/bin/pollcheck"
    cp "$build_dir/drainbench-$arch" "$stage/bin/drainbench"
    mknod "$stage/dev/console" c 5 1 2>/dev/null || true
    if [[ -n "$daemon_build" ]]; then
        local triplet=x86_64-linux-gnu sysroot=
        [[ "$arch" == arm64 ]] && triplet=aarch64-linux-gnu sysroot=/usr/aarch64-linux-gnu/lib
        # The cross compiler's own libc comes last: the multiarch one is the newer, and the
        # one the other multiarch libraries were built with.
        local search="$daemon_build/libubo /usr/lib/$triplet/android /lib/$triplet
            /usr/lib/$triplet $sysroot"
        # A build folder's layout at /build (TAVI_BUILD_DIR), without debug information.
        local programs=(src/tavi_daemon sim/ubo_service/ubo_sim)
        local suite program
        for suite in "${vm_suites[@]}"; do programs+=("tests/$suite"); done
        for program in "${programs[@]}"; do
            mkdir -p "$stage/build/$(dirname "$program")"
            objcopy_for "$arch" --strip-debug "$daemon_build/$program" "$stage/build/$program"
        done
        # ubo_sim's schema: init.sh names it in UBO_SIM_PROTO (the source tree may lie under the
        # guest's /tmp, which is a tmpfs of its own there).
        cp "$root/src/probe/tavi.proto" "$stage/etc/tavi.proto"
        stage_libraries "$stage" "$search" "${programs[@]/#/$stage/build/}"
        [[ -e "$stage/lib/libubo.so" ]] || die "tavi_daemon does not link libubo.so"
        # The drain benchmark puts it ahead of the real one.
        mkdir -p "$stage/lib/ubo-stub"
        cp "$build_dir/ubo-stub-$arch/libubo.so" "$stage/lib/ubo-stub/"
    fi
    (cd "$stage" && find . | cpio -o -H newc -R 0:0 --quiet) | gzip -1 >"$image"
}

run_vm() {
    local arch=$1 kernel=$2 initrd=$3 console_log=$4
    local qemu accel accel_why console=ttyS0 wait_scale
    choose_accel "$arch"
    [[ "$arch" == arm64 ]] && console=ttyAMA0
    # Emulated on a busy host, the kernel's IO-APIC timer check can fail and stop the boot.
    local append="console=$console panic=-1 quiet loglevel=4"
    # Two vCPUs, so that the drain benchmark's injector and reader do not take turns on one.
    local smp=2
    [[ "$arch" == x86_64 ]] && append+=" no_timer_check"
    local status attempt
    for attempt in 1 2; do
        case "$arch-$accel" in
            x86_64-kvm) qemu=(qemu-system-x86_64 -accel kvm -cpu host) ;;
            x86_64-tcg) qemu=(qemu-system-x86_64 -accel tcg -cpu max) ;;
            arm64-kvm) qemu=(qemu-system-aarch64 -M virt,gic-version=host -accel kvm -cpu host) ;;
            arm64-tcg) qemu=(qemu-system-aarch64 -M virt -cpu cortex-a57 -accel tcg) ;;
        esac
        # The suite's waits stretch with the emulation (docs/kernel.md has the measurements).
        wait_scale=${TAVI_VM_WAIT_SCALE:-}
        [[ -n "$wait_scale" ]] || { [[ "$accel" == kvm ]] && wait_scale=1 || wait_scale=4; }
        say "$arch: qemu with ${accel^^} ($accel_why), $smp vCPUs, waits scaled by $wait_scale"
        status=0
        # The drain benchmark prints the accelerator: it reads it from the command line.
        timeout -k 10 "$vm_timeout" nice "${qemu[@]}" -m 512 -smp "$smp" -nographic -no-reboot \
            -kernel "$kernel" -initrd "$initrd" \
            -append "$append tavi.accel=$accel tavi.wait_scale=$wait_scale" \
            </dev/null >"$console_log" 2>&1 || status=$?
        tr -d '\r' <"$console_log" >"$console_log.txt"
        # Only a boot that never reached /init is tried again; a failed check is final.
        grep -q '^TAVI-VM: start' "$console_log.txt" && break
        if [[ "$accel" == kvm ]]; then
            # A /dev/kvm that opens may still be unable to run a guest (qemu: "failed to set
            # MSR", then an assertion): the retry never uses KVM again.
            accel=tcg
            accel_why="the guest did not boot with KVM: $(boot_failure "$console_log.txt" $status)"
        elif [[ $attempt -eq 1 ]]; then
            say "$arch: the kernel did not reach /init; booting once more"
        fi
    done
    grep -E '^(ok|not ok) - |^TAVI-VM: |^suite: ' "$console_log.txt" || true
    [[ $status -eq 124 || $status -eq 137 ]] && say "$arch: the VM ran out of its ${vm_timeout}s"
    grep -q '^TAVI-VM: PASS' "$console_log.txt"
}

# Why a boot did not reach /init: qemu's own first complaint, else how it ended.
boot_failure() {
    local log=$1 status=$2 complaint
    complaint=$(grep -m 1 -E '^qemu-system-[a-z0-9_]+: |Assertion' "$log" || true)
    if [[ -n "$complaint" ]]; then
        echo "$complaint"
    elif [[ $status -eq 124 || $status -eq 137 ]]; then
        echo "no /init within ${vm_timeout}s"
    else
        echo "qemu ended with status $status before /init"
    fi
}

# Sets accel (kvm or tcg) and accel_why for a guest. Hardware virtualisation only for a guest
# of the host's own architecture, and only when /dev/kvm opens (it may exist yet be refused,
# e.g. in a container); TAVI_VM_ACCEL=kvm tries it regardless. run_vm still falls back to TCG
# when the guest does not boot with it.
choose_accel() {
    local arch=$1 host
    host=$(uname -m)
    [[ "$host" == aarch64 ]] && host=arm64
    if [[ -n "${TAVI_VM_ACCEL:-}" ]]; then
        [[ "$TAVI_VM_ACCEL" == kvm || "$TAVI_VM_ACCEL" == tcg ]] ||
            die "TAVI_VM_ACCEL is kvm or tcg, not \"$TAVI_VM_ACCEL\""
        accel=$TAVI_VM_ACCEL accel_why="TAVI_VM_ACCEL=$TAVI_VM_ACCEL"
    elif [[ "$host" != "$arch" ]]; then
        accel=tcg accel_why="the guest is not of the host's architecture, $host"
    # -c first: opening a missing path read-write would create it.
    elif [[ ! -c /dev/kvm ]]; then
        accel=tcg accel_why="no /dev/kvm"
    elif ! (exec 3<>/dev/kvm) 2>/dev/null; then
        accel=tcg accel_why="/dev/kvm does not open"
    else
        accel=kvm accel_why="/dev/kvm opens and the guest is of the host's architecture"
    fi
}

# Everything up to the image; any failure here ends the script.
prepare_arch() {
    local arch=$1 abi=$2 deb_arch=$3
    local cc=gcc
    [[ "$arch" == arm64 ]] && cc=aarch64-linux-gnu-gcc
    local kernel_dir="$build_dir/kernel-$abi-$deb_arch"
    fetch_kernel "$deb_arch" "$abi" "$kernel_dir"
    local kdir=${TAVI_VM_KDIR:-$kernel_dir/usr/src/linux-headers-$abi-$deb_arch}
    say "$arch: building tavi_log against $kdir"
    build_module "$arch" "$kdir" "$build_dir/kmod-$arch"
    quiet nice "$cc" -static -O2 -Wall -Wextra -Werror -o "$build_dir/pollcheck-$arch" \
        "$root/vm/pollcheck.c"
    quiet nice "$cc" -static -O2 -Wall -Wextra -Werror -o "$build_dir/drainbench-$arch" \
        "$root/vm/drainbench.c"
    local daemon_build=
    if [[ "$with_daemon" == 1 ]]; then
        daemon_build="$build_dir/daemon-$arch"
        # The test command's build already holds the host's binaries (CI runs it first):
        # bringing it up to date is cheaper than a build of its own.
        local host_build=${TAVI_VM_HOST_BUILD:-$root/build}
        if [[ "$arch" == "$(uname -m)" ]] &&
            grep -qx 'TAVI_BUILD_SIM:BOOL=ON' "$host_build/CMakeCache.txt" 2>/dev/null &&
            grep -qx 'TAVI_BUILD_TESTS:BOOL=ON' "$host_build/CMakeCache.txt"; then
            daemon_build=$host_build
            say "$arch: bringing ${vm_targets[*]} up to date in $host_build"
            quiet nice cmake --build "$host_build" -j2 --target "${vm_targets[@]}"
        else
            say "$arch: building ${vm_targets[*]}"
            build_daemon "$arch" "$daemon_build"
        fi
        # The benchmarks' event library, always active and discarding every event, in the
        # place of libubo.so for the drain benchmark.
        mkdir -p "$build_dir/ubo-stub-$arch"
        quiet nice "${cc%gcc}g++" -std=c++17 -shared -fPIC -O2 -Wall -Wextra -Werror \
            -I"$root/libubo/include" -Wl,-soname,libubo.so \
            -o "$build_dir/ubo-stub-$arch/libubo.so" "$root/bench/ubo_stub.cpp"
    fi
    make_initramfs "$arch" "$kernel_dir" "$build_dir/kmod-$arch" "$daemon_build" \
        "$build_dir/initramfs-$arch.cpio.gz"
}

test_arch() {
    local arch=$1 abi=$2
    local deb_arch=amd64
    [[ "$arch" == arm64 ]] && deb_arch=arm64
    local start=$SECONDS
    prepare_arch "$arch" "$abi" "$deb_arch"
    local built=$SECONDS
    local kernel=${TAVI_VM_KERNEL:-$build_dir/kernel-$abi-$deb_arch/boot/vmlinuz-$abi-$deb_arch}
    say "$arch: booting $kernel (prepared in $((built - start))s)"
    local verdict=PASS
    run_vm "$arch" "$kernel" \
        "$build_dir/initramfs-$arch.cpio.gz" "$build_dir/console-$arch.log" || verdict=FAIL
    say "$arch: $verdict, VM ran $((SECONDS - built))s"
    say "$arch: console log in $build_dir/console-$arch.log.txt"
    [[ "$verdict" == PASS ]] && passed=$((passed + 1)) || failed=$((failed + 1))
}

main() {
    local which=${1:-all} arches
    case "$which" in
        x86_64 | arm64) arches=("$which") ;;
        all) arches=(x86_64 arm64) ;;
        *) die "usage: $0 [x86_64|arm64|all]" ;;
    esac
    setup_packages "${arches[@]}"
    local abi arch
    abi=$(kernel_abi)
    passed=0 failed=0
    for arch in "${arches[@]}"; do
        test_arch "$arch" "$abi"
    done
    echo "vm-test: $passed passed, $failed failed"
    [[ $failed -eq 0 ]]
}

main "$@"
