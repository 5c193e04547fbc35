# Cross build for the device's 32-bit ARM hard-float userland (Debian armhf).
#
# Libraries come from a sysroot folder that scripts/test-arm.sh fills with
# Debian's armhf Boost packages and a cross-built GoogleTest; the C and C++
# runtime come with the cross compiler (/usr/arm-linux-gnueabihf). The host's
# /usr/include is never searched. Programs run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# g++ notes that passing some types changed in GCC 7.1; everything here is
# built by one compiler, so the note says nothing.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT CIMCORE_ARMHF_SYSROOT)
  get_filename_component(CIMCORE_ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CIMCORE_ARMHF_SYSROOT)
set(CIMCORE_ARMHF_TOOLCHAIN_ROOT /usr/arm-linux-gnueabihf)
set(CIMCORE_ARMHF_LIBDIR ${CIMCORE_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf)

set(CMAKE_FIND_ROOT_PATH ${CIMCORE_ARMHF_SYSROOT} ${CIMCORE_ARMHF_TOOLCHAIN_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Boost's own dependencies (libboost_atomic and the like) are found there too.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CIMCORE_ARMHF_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CIMCORE_ARMHF_LIBDIR}")

# No binfmt_misc is assumed: every target program is started through
# qemu-arm, with the cross runtime as its root and the sysroot's libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-arm -L ${CIMCORE_ARMHF_TOOLCHAIN_ROOT} -E LD_LIBRARY_PATH=${CIMCORE_ARMHF_LIBDIR})
