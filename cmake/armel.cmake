# Cross build for the real target: ARM without an FPU (Debian armel: ARMv5TE,
# soft-float EABI). Programs built here run under qemu-arm, which CTest uses for every
# test program; tests that start programs themselves get the same emulator through
# KMXC_EMULATOR (see the top CMakeLists.txt).
#   cmake --preset armel   (or: cmake -S . -B build-armel -DCMAKE_TOOLCHAIN_FILE=cmake/armel.cmake)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabi)
set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
set(CMAKE_C_FLAGS_INIT "-march=armv5te -mfloat-abi=soft")
set(CMAKE_CXX_FLAGS_INIT "-march=armv5te -mfloat-abi=soft")
# Programs run on the machine's armel runtime (libc6:armel and the libraries beside it,
# which scripts/ensure-deps.sh installs): its loader and C library come from one
# package. The cross toolchain's copy under /usr/arm-linux-gnueabi may be another
# release, and its loader with the multiarch C library (which it finds first) crashes
# at the first pthread_create.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)

# Debian's multiarch packages (:armel) live under /usr/lib/arm-linux-gnueabi and
# /usr/include; the cross toolchain's own sysroot is /usr/arm-linux-gnueabi.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabi /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
