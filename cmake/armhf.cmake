# 32-bit ARM (ARMv7-A, hard float, glibc), with the libraries of the sysroot that scripts/armhf-sysroot makes. What is
# built runs under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot)
cmake_path(NORMAL_PATH sysroot)
set(CMAKE_SYSROOT ${sysroot})
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)  # notes about an ABI change of GCC 7, which nothing here mixes
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${sysroot})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig:${sysroot}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})

# For CPack, which finds the needed packages by the libraries.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${sysroot}/usr/lib/arm-linux-gnueabihf)
