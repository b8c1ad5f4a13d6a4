#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The daemon's story on a simulated device from a fresh Debian 12 machine, as root: installs,
# builds quietly, then runs `tavi-device demo` (exit 0 only when every expected line and event
# was seen). State folder: $TAVI_DEVICE_STATE, default build/demo-device.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
export TAVI_BUILD_DIR=$build_dir
export TAVI_DEVICE_STATE=${TAVI_DEVICE_STATE:-$build_dir/demo-device}

if [[ $(id -u) -ne 0 ]]; then
    echo "demo: needs root (it mounts a FUSE file system and uses a mount namespace); run: sudo $0" >&2
    exit 1
fi
"$root/scripts/setup.sh"
echo "Building in $build_dir ..."
if ! build_output=$(BUILD_DIR=$build_dir "$root/scripts/build.sh" 2>&1); then
    printf '%s\ndemo: the build failed\n' "$build_output" >&2
    exit 1
fi
exec "$build_dir/sim/device/tavi-device" demo
