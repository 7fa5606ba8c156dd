# arm64 (aarch64) from an x86-64 Debian machine with Debian's cross toolchain
# (crossbuild-essential-arm64) and the arm64 -dev packages that tools/setup.sh --arm64 installs
# through multiarch or, where one cannot stand beside its amd64 twin, unpacks into
# build/arm64-sysroot, which is searched first. Test programs run under qemu-user.
#   cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config CACHE FILEPATH "pkg-config for arm64")

get_filename_component(ZEL_ARM64_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/arm64-sysroot" ABSOLUTE)
# The wrapper reads the arm64 multiarch directories; the sysroot's .pc files come before them.
set(ENV{PKG_CONFIG_PATH} "${ZEL_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig")
# Headers and libraries: the sysroot first, then the machine's own multiarch directories
# (CMAKE_LIBRARY_ARCHITECTURE keeps the search to their aarch64-linux-gnu parts).
set(CMAKE_FIND_ROOT_PATH "${ZEL_ARM64_SYSROOT}" /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and gtest_discover_tests start arm64 programs through qemu-user, never binfmt_misc;
# the arm64 loader and libraries come from the multiarch directories.
find_program(ZEL_QEMU_AARCH64 qemu-aarch64-static qemu-aarch64)
if(ZEL_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ZEL_QEMU_AARCH64}")
endif()
