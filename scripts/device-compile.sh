#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compiles every translation unit that Android.bp builds (daemon, unit tests, fuzz targets) the
# way the platform's toolchain does: clang with libc++, gnu++20, no RTTI, no exceptions, the
# warnings Soong turns on for device code and -Werror, against the generated lite schema.
# Compile only: Debian's protobuf, libbase and gtest libraries are built against libstdc++ and
# cannot be linked into a libc++ program, so the link is left to the real tree.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh" clang libc++-dev libc++abi-dev
out=${BUILD_DIR:-$root/build}/device-compile
rm -rf "$out" && mkdir -p "$out/generated"

# Soong's proto support generates lite code and builds it with NDEBUG, like every module.
protoc --cpp_out=lite:"$out/generated" -I "$root/src" "$root/src/probe/tavi.proto"

# build/soong/cc/config/global.go (Android 15): commonGlobalCflags, deviceGlobalCflags,
# commonGlobalCppflags and noOverrideGlobalCflags, the warnings and defines of each; the
# standard is CppStdVersion there (gnu++20 since Android 14, gnu++17 in Android 13), -fno-rtti
# comes from cc/compiler.go and -DGOOGLE_PROTOBUF_NO_RTTI from cc/proto.go. Options this clang
# does not know (Soong's clang is newer) only switch off warnings it does not have, hence
# -Wno-unknown-warning-option.
flags=(
    -std=gnu++20 -stdlib=libc++ -fno-rtti -fno-exceptions -O2 -Werror
    -Wno-unknown-warning-option
    -Wall -Wextra -Winit-self -Wpointer-arith -Wunguarded-availability -Werror=date-time
    -Werror=int-conversion -Werror=pragma-pack -Werror=pragma-pack-suspicious-include
    -Werror=sizeof-array-div -Werror=string-plus-int -Werror=unreachable-code-loop-increment
    -Wno-error=deprecated-declarations -Wno-c99-designator -Wno-gnu-folding-constant
    -Wno-inconsistent-missing-override -Wno-error=reorder-init-list -Wno-reorder-init-list
    -Wno-sign-compare -Wno-unused
    -DANDROID -DNDEBUG -UDEBUG -fno-strict-aliasing
    -ffunction-sections -fdata-sections -fstack-protector-strong -D_FORTIFY_SOURCE=2
    -Wstrict-aliasing=2 -Werror=return-type -Werror=non-virtual-dtor -Werror=address
    -Werror=sequence-point -Werror=format-security
    -Wimplicit-fallthrough -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS -Wno-gnu-include-next
    -Werror=bool-operation -Werror=format-insufficient-args
    -Werror=implicit-int-float-conversion -Werror=int-in-bool-context
    -Werror=int-to-pointer-cast -Werror=pointer-to-int-cast -Werror=xor-used-as-pow
    -Wno-void-pointer-to-enum-cast -Wno-void-pointer-to-int-cast -Wno-pointer-to-int-cast
    -Werror=fortify-source -Wno-unused-variable -Wno-missing-field-initializers
    -Wno-packed-non-pod -Werror=address-of-temporary
    -Werror=incompatible-function-pointer-types -Werror=null-dereference
    -Wno-tautological-constant-compare -Wno-tautological-type-limit-compare
    -Wno-implicit-int-float-conversion -Wno-tautological-overlap-compare -Wno-deprecated-copy
    -Wno-range-loop-construct -Wno-zero-as-null-pointer-constant
    -Wno-deprecated-anon-enum-enum-conversion -Wno-deprecated-enum-enum-conversion
    -Wno-pessimizing-move -Wno-non-c-typedef-for-linkage -Wno-align-mismatch
    -Wno-error=unused-but-set-variable -Wno-error=unused-but-set-parameter
    -Wno-error=deprecated-builtins -Wno-error=deprecated
    -Wno-error=single-bit-bitfield-constant-conversion -Wno-error=enum-constexpr-conversion
    -Wno-error=invalid-offsetof -Wno-error=thread-safety-reference-return
    -Wno-vla-cxx-extension
    -DGOOGLE_PROTOBUF_NO_RTTI
    -I"$root/src" -I"$out/generated" -I"$root/libubo/include" -I"$root/tests"
    -I/usr/include/android
)

# The module's own flags from Android.bp: the generated code has unused parameters.
compile() {
    local source=$1 extra=()
    [[ $source == *.pb.cc ]] && extra=(-Wno-unused-parameter)
    clang++ "${flags[@]}" "${extra[@]}" -c "$source" -o "$out/$(basename "$source").o"
}
sources=("$out/generated/probe/tavi.pb.cc")
mapfile -t -O 1 sources < <(grep -oE '"(src|tests|fuzz)/[^"]+\.cpp"' "$root/Android.bp" |
    tr -d '"' | sed "s|^|$root/|")
status=0
for source in "${sources[@]}"; do
    compile "$source" || { echo "device-compile: $source does not compile" >&2; status=1; }
done
[[ $status -eq 0 ]] && echo "device-compile: ${#sources[@]} translation units compile" \
    "(clang, libc++, gnu++20, -fno-rtti, -fno-exceptions, -Werror)"
exit "$status"
