#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The whole test suite from a fresh machine: set-up, configure, build, run every test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$@"
cd "${BUILD_DIR:-$root/build}"
ctest --output-on-failure -j"$(nproc)"
