#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the kernel's checkpatch.pl (--strict) over the tavi_log module sources. Debian's
# headers packages do not ship it, so it comes from Debian's linux-source package, downloaded
# (not installed) into BUILD_DIR (default: build-vm) together with the data files it reads.
#   KERNEL_SERIES  the linux-source package's series (default: 6.1)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${BUILD_DIR:-$root/build-vm}
series=${KERNEL_SERIES:-6.1}
tools="$build_dir/checkpatch-$series"
# checkpatch.pl wants perl's full library, not only perl-base.
"$root/scripts/setup.sh" perl xz-utils

if [[ ! -f "$tools/checkpatch.pl" ]]; then
    mkdir -p "$tools/cache"
    echo "checkpatch: downloading linux-source-$series"
    (cd "$tools/cache" &&
        apt-get -q -o APT::Sandbox::User=root download "linux-source-$series" >/dev/null)
    deb=$(find "$tools/cache" -name "linux-source-${series}_*.deb" | sort | tail -n 1)
    dpkg-deb --fsys-tarfile "$deb" | tar -xO "./usr/src/linux-source-$series.tar.xz" |
        xz -dc | tar -x -C "$tools" --strip-components=2 \
            "linux-source-$series/scripts/checkpatch.pl" \
            "linux-source-$series/scripts/spelling.txt" \
            "linux-source-$series/scripts/const_structs.checkpatch"
    rm -rf "$tools/cache"
fi

perl "$tools/checkpatch.pl" --no-tree --strict --terse -f \
    "$root"/kernel/*.c "$root"/kernel/include/*.h "$root"/kernel/Kbuild "$root"/kernel/Makefile
echo "checkpatch: no problems in kernel/"
