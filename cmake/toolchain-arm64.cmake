# Cross build for 64-bit ARM (arm64) with Debian's aarch64-linux-gnu
# toolchain. Tests run through qemu-user with the cross libraries as the
# target's root, so ctest and GoogleTest's discovery work unchanged.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Everything is built by the same compiler: its notes on calling conventions
# that changed in earlier GCC releases concern no code here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64 -L /usr/aarch64-linux-gnu)
