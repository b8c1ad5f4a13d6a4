#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Configures and builds into BUILD_DIR (default: build). Extra arguments go to cmake.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)" -- --no-print-directory
