# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
# Cross-compiling for the embosser's board: Debian armhf, against a sysroot that holds its Qt 5
# (scripts/cross-build-armhf prepares one). Set ARMHF_SYSROOT on the command line or in the
# environment.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

if(NOT ARMHF_SYSROOT)
    set(ARMHF_SYSROOT "$ENV{ARMHF_SYSROOT}")
endif()
if(NOT IS_DIRECTORY "${ARMHF_SYSROOT}")
    message(FATAL_ERROR "ARMHF_SYSROOT must name the armhf sysroot, not '${ARMHF_SYSROOT}'")
endif()
# try_compile projects read this file again; they need the sysroot too.
set(ENV{ARMHF_SYSROOT} "${ARMHF_SYSROOT}")

set(CMAKE_SYSROOT "${ARMHF_SYSROOT}")
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# Libraries, headers and CMake packages from the sysroot only; programs from the host.
set(CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Built programs run under user-mode emulation through the sysroot's dynamic loader. Not with
# "qemu-arm -L": that also redirects every absolute path found in the sysroot, so a program
# would read the sysroot's /etc/hostname instead of the machine's.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm "${ARMHF_SYSROOT}/lib/ld-linux-armhf.so.3"
    --library-path "${ARMHF_SYSROOT}/lib/arm-linux-gnueabihf:${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
