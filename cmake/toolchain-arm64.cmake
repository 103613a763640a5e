# Cross build for 64-bit ARM (arm64). Tests run through qemu-user with the
# cross libraries as the target's root, so ctest and GoogleTest's discovery
# work unchanged.
set(DMS_CROSS_TRIPLET aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
# Everything is built by the same compiler: its notes on calling conventions
# that changed in earlier GCC releases concern no code here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64 -L /usr/${DMS_CROSS_TRIPLET})
