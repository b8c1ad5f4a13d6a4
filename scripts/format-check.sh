#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the form of the sources: every tracked C, C++ and protocol-buffers file as
# clang-format 14 makes it with the repository's .clang-format (kernel/ follows the kernel's own
# style and is left out), Android.bp as bpfmt makes it, and a licence line in every source
# file: GPL-2.0 in kernel/, Apache-2.0 elsewhere.
#
# usage: scripts/format-check.sh [--fix]   (--fix rewrites C, C++ and proto files in place)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" clang-format blueprint-tools
cd "$root"
mapfile -t files < <(git ls-files -- {src,libubo,sim,tests,bench,fuzz}/'*'.{c,cc,cpp,h,proto})
if [[ "${1:-}" == --fix ]]; then
    clang-format -i "${files[@]}"
    exit 0
fi
status=0
clang-format --dry-run --Werror "${files[@]}" || status=1
[[ -z "$(bpfmt -d Android.bp)" ]] || { bpfmt -d Android.bp; status=1; }

# The line comes first, or second after a shebang.
while read -r file; do
    licence=Apache-2.0
    [[ "$file" == kernel/* ]] && licence=GPL-2.0
    head -n 2 "$file" | grep -qE "SPDX-License-Identifier: $licence( |\*|$)" || {
        echo "format-check: $file has no \"SPDX-License-Identifier: $licence\" line" >&2
        status=1
    }
done < <(git ls-files -- . ':!:*.md' ':!:*LICENSE' ':!:*.gitignore' ':!:TEST_MAPPING' \
    ':!:fuzz/corpus/*')
[[ $status -eq 0 ]] && echo "format-check: ${#files[@]} C, C++ and proto files as clang-format" \
    "makes them, Android.bp as bpfmt makes it, every source file with its licence line"
exit "$status"
