# SPDX-License-Identifier: MIT
# Debian's cross compiler with its arm64 Qt packages beside the native ones; tests run under qemu's user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
# Never taken from the prefix of the machine that builds.
set(CMAKE_INSTALL_LIBDIR lib/aarch64-linux-gnu CACHE PATH "Library directory below the prefix")
