#!/usr/bin/env bash
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
)
packages+=("$@")

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ "$status" == "installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -ne 0 ]]; then
    echo "setup: missing packages: ${missing[*]}; run as root to install them" >&2
    exit 1
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
