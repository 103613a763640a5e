# Cross build for 32-bit ARM (hard-float). Tests run through qemu-user with
# the cross libraries as the target's root, so ctest and GoogleTest's
# discovery work unchanged.
set(DMS_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
# Everything is built by the same compiler: its notes on a calling convention
# that changed in GCC 7.1 concern no code here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm -L /usr/${DMS_CROSS_TRIPLET})
