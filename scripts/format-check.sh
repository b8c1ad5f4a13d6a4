#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that every tracked C, C++ and protocol-buffers source is as clang-format 14 makes it
# with the repository's .clang-format; kernel/ follows the kernel's own style and is left out.
#
# usage: scripts/format-check.sh [--fix]   (--fix rewrites the files in place instead)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" clang-format
cd "$root"
mapfile -t files < <(git ls-files -- \
    {src,libubo,sim,tests,bench,fuzz}/'*'.{c,cc,cpp,h,proto})
if [[ "${1:-}" == --fix ]]; then
    clang-format -i "${files[@]}"
    exit 0
fi
clang-format --dry-run --Werror "${files[@]}"
echo "format-check: ${#files[@]} files as clang-format $(clang-format --version |
    grep -oE '[0-9]+\.[0-9.]+' | head -n 1) makes them"
