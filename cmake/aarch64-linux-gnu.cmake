# Cross build for the camera's processor (AArch64 Linux) with Debian's g++-aarch64-linux-gnu,
# against the arm64 sysroot of scripts/make-arm64-sysroot.sh and the arm64 TensorFlow Lite library
# of `scripts/fetch-tflite.sh --arch arm64`. Programs of the build (the model forge, the test
# program, test discovery, ctest) run under qemu-aarch64-static with the sysroot as their root.
#
#   cmake -S . -B build-arm64 --toolchain cmake/aarch64-linux-gnu.cmake
#
# STEMLIB_ARM64_SYSROOT and STEMLIB_TFLITE_DIR (cache or environment) point elsewhere.
# STEMLIB_EXTRA_FIND_ROOTS (cache) lists further sysroot-like folders to search, such as the
# camera SDK's libraries laid out by scripts/check-sdk-platform.sh --arm64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

if(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
    set(_stemlib_cache "$ENV{XDG_CACHE_HOME}/stemlib")
else()
    set(_stemlib_cache "$ENV{HOME}/.cache/stemlib")
endif()
if(NOT STEMLIB_ARM64_SYSROOT)
    if(DEFINED ENV{STEMLIB_ARM64_SYSROOT} AND NOT "$ENV{STEMLIB_ARM64_SYSROOT}" STREQUAL "")
        set(STEMLIB_ARM64_SYSROOT "$ENV{STEMLIB_ARM64_SYSROOT}")
    else()
        set(STEMLIB_ARM64_SYSROOT "${_stemlib_cache}/sysroot-arm64-bookworm")
    endif()
endif()
set(STEMLIB_ARM64_SYSROOT "${STEMLIB_ARM64_SYSROOT}" CACHE PATH
    "The arm64 sysroot of scripts/make-arm64-sysroot.sh")
if(NOT EXISTS "${STEMLIB_ARM64_SYSROOT}/.stemlib-sysroot")
    message(FATAL_ERROR "No arm64 sysroot in ${STEMLIB_ARM64_SYSROOT}: run "
                        "scripts/make-arm64-sysroot.sh (scripts/install-deps.sh does).")
endif()
# Passed on to try_compile projects, which read this file again.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES STEMLIB_ARM64_SYSROOT STEMLIB_EXTRA_FIND_ROOTS)

# The arm64 engine of the host inference service; the default of cmake/StemlibTFLite.cmake is
# the PC's own.
if(NOT STEMLIB_TFLITE_DIR AND NOT "$ENV{STEMLIB_TFLITE_DIR}" STREQUAL "")
    set(STEMLIB_TFLITE_DIR "$ENV{STEMLIB_TFLITE_DIR}")
endif()
set(STEMLIB_TFLITE_DIR "${_stemlib_cache}/tflite-2.9-arm64" CACHE PATH
    "Where scripts/fetch-tflite.sh --arch arm64 put TensorFlow Lite")

set(CMAKE_SYSROOT "${STEMLIB_ARM64_SYSROOT}")
# The engine's folder is a root of its own, so that its absolute paths are searched as they are.
# STEMLIB_EXTRA_FIND_ROOTS adds folders laid out like a sysroot beside it, such as a camera SDK's.
set(CMAKE_FIND_ROOT_PATH "${STEMLIB_ARM64_SYSROOT}" "${STEMLIB_TFLITE_DIR}"
    ${STEMLIB_EXTRA_FIND_ROOTS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${STEMLIB_ARM64_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${STEMLIB_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${STEMLIB_ARM64_SYSROOT}/usr/share/pkgconfig")

# No binfmt_misc is assumed: every arm64 program is started through the emulator.
find_program(STEMLIB_QEMU_AARCH64 qemu-aarch64-static)
if(NOT STEMLIB_QEMU_AARCH64)
    message(FATAL_ERROR "qemu-aarch64-static not found (package qemu-user-static)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${STEMLIB_QEMU_AARCH64};-L;${STEMLIB_ARM64_SYSROOT}")
