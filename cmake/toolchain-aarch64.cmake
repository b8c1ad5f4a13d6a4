# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit Arm Linux with Debian's cross compiler and arm64 multiarch packages
# (see scripts/cross-arm64.sh). Usage: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch keeps the target's libraries beside the host's, in /usr/lib/aarch64-linux-gnu
# (Android's under its android/ folder), and shares the architecture-independent headers of
# /usr/include. So there is no separate sysroot: the library architecture alone steers every
# find_library() to the arm64 copies, and the cross compiler's own root holds its libc.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Code generators run on the build machine.
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "protoc of the build machine")

# Target programs (test discovery, ctest) run under user-mode emulation, with the arm64 loader
# and libc of the multiarch packages. Not with the cross compiler's root as prefix (-L): its
# loader would pair with the multiarch libc of another build, and forked children then hang.
find_program(TAVI_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVI_QEMU_AARCH64})
