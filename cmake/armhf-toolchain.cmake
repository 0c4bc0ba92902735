# Cross build for 32-bit ARM Linux panels (armhf: ARMv7, hard float), with
# Debian's arm-linux-gnueabihf compilers and a root of target libraries made
# by scripts/armhf-sysroot.sh (Qt 5 Core, GoogleTest, the C/C++ runtime).
#
#   bash scripts/armhf-sysroot.sh
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DABCL_ARMHF_SYSROOT=$PWD/build/armhf-sysroot -DABCL_BUILD_BENCH=OFF
#   cmake --build build/armhf -j2 && ctest --test-dir build/armhf
#
# Test programs run through qemu-arm (CMAKE_CROSSCOMPILING_EMULATOR), for
# test discovery and for ctest alike, with the root as QEMU_LD_PREFIX so the
# target's loader and libraries are the ones found.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ABCL_ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE ${ABCL_ARMHF_TRIPLET})

set(CMAKE_C_COMPILER ${ABCL_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ABCL_ARMHF_TRIPLET}-g++)

# The root: from the cache (-DABCL_ARMHF_SYSROOT=...), else the environment,
# else where scripts/armhf-sysroot.sh puts it by default. try_compile projects
# read this file again, so the value is handed on to them too.
if(NOT ABCL_ARMHF_SYSROOT)
  if(DEFINED ENV{ABCL_ARMHF_SYSROOT})
    set(ABCL_ARMHF_SYSROOT "$ENV{ABCL_ARMHF_SYSROOT}")
  else()
    get_filename_component(ABCL_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" ABSOLUTE)
  endif()
endif()
get_filename_component(ABCL_ARMHF_SYSROOT "${ABCL_ARMHF_SYSROOT}" ABSOLUTE)
set(ABCL_ARMHF_SYSROOT "${ABCL_ARMHF_SYSROOT}" CACHE PATH "Root of the armhf target libraries (scripts/armhf-sysroot.sh)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ABCL_ARMHF_SYSROOT)
if(NOT EXISTS "${ABCL_ARMHF_SYSROOT}/usr/lib/${ABCL_ARMHF_TRIPLET}/libQt5Core.so")
  message(FATAL_ERROR "No armhf root at ${ABCL_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh "
                      "or pass -DABCL_ARMHF_SYSROOT=<dir>")
endif()

# Not CMAKE_SYSROOT: Debian's cross compiler brings its own C library and
# headers (/usr/arm-linux-gnueabihf), and the root holds runtime libraries
# only, without libc6-dev. So the compiler keeps its own default search paths,
# and only packages, libraries and headers are looked up in the root.
set(CMAKE_FIND_ROOT_PATH "${ABCL_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# GCC notes that passing some structures changed in GCC 7.1. Every object of
# this build and of the target's libraries comes from later compilers, so the
# note says nothing here, and it buries real diagnostics in the build log.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# libQt5Core.so needs ICU, PCRE2, GLib and others that live only in the root:
# the linker must be told where to follow those indirect dependencies.
set(_abcl_armhf_libdirs
  "${ABCL_ARMHF_SYSROOT}/usr/lib/${ABCL_ARMHF_TRIPLET}"
  "${ABCL_ARMHF_SYSROOT}/lib/${ABCL_ARMHF_TRIPLET}")
set(_abcl_armhf_link_flags "")
foreach(dir IN LISTS _abcl_armhf_libdirs)
  string(APPEND _abcl_armhf_link_flags " -L${dir} -Wl,-rpath-link,${dir}")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_abcl_armhf_link_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_abcl_armhf_link_flags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_abcl_armhf_link_flags}")

# Run target programs with qemu-arm. QEMU_LD_PREFIX is set through env rather
# than qemu's -L so that it is also inherited by anything the program starts.
find_program(ABCL_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(NOT ABCL_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found (Debian package qemu-user)")
endif()
find_program(ABCL_ENV_PROGRAM env REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
  "${ABCL_ENV_PROGRAM};QEMU_LD_PREFIX=${ABCL_ARMHF_SYSROOT};${ABCL_QEMU_ARM}")
