#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs every Debian package the project needs. Idempotent: prints nothing and touches
# nothing when all of them are there already. Run as root on Debian 12.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    android-libbase-dev android-liblog-dev
    libprotobuf-dev libprotoc-dev protobuf-compiler
    libfuse3-dev fuse3
    util-linux procps xxd
    checkpolicy m4 policycoreutils selinux-utils
)
packages+=(nlohmann-json3-dev) # the event-service simulator's event log
packages+=("$@")

# A name without ":arch" means the machine's own architecture (or an "all" package); with
# foreign architectures enabled, dpkg may list one instance per architecture.
native_arch=$(dpkg --print-architecture)
is_installed() {
    local name=${1%%:*} arch=${1#*:}
    [[ "$1" == *:* ]] || arch=$native_arch
    dpkg-query -W -f='${Architecture} ${db:Status-Status}\n' "$name" 2>/dev/null |
        grep -qE "^($arch|all) installed$"
}

missing=()
for package in "${packages[@]}"; do
    is_installed "$package" || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -ne 0 ]]; then
    echo "setup: missing packages: ${missing[*]}; run as root to install them" >&2
    exit 1
fi
# A package of another architecture (NAME:arm64) needs that architecture enabled first.
for package in "${missing[@]}"; do
    arch=${package#*:}
    [[ "$package" == *:* && "$arch" != "$native_arch" ]] || continue
    dpkg --print-foreign-architectures | grep -qx "$arch" || dpkg --add-architecture "$arch"
done
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# apt's own chatter (debconf's notes included) is shown only when the installation fails.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } \
    >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "setup: installing ${missing[*]} failed" >&2
    exit 1
fi
