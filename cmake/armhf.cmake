# Cross-build for 32-bit ARM (the Android target's word size and alignment) with Debian's
# arm-linux-gnueabihf toolchain; installed beside the CMake package for hosts built the same way:
#   cmake -DCMAKE_TOOLCHAIN_FILE=PREFIX/lib/cmake/zrtproxy/armhf.cmake -DZRT_TARGET_ROOTS=DIR ...
# ZRT_TARGET_ROOTS: folders holding usr/include and usr/lib/arm-linux-gnueabihf of libraries
# built for the target (c-ares; tools/fetch-armhf-cares puts Debian's there). Programs run under
# qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${ZRT_TARGET_ROOTS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
# This project's own tests: GoogleTest from source, no end-to-end tests under emulation.
set(ZRT_GTEST_FROM_SOURCE ON CACHE BOOL "" FORCE)
set(ZRT_BUILD_E2E OFF CACHE BOOL "" FORCE)
