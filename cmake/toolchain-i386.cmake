# Cross build for 32-bit x86. The results run natively on an x86-64 kernel
# that starts 32-bit programs (libc6-i386, lib32stdc++6), so no emulator is
# set and the system tests can start them too. A kernel without that support
# gets qemu-user as the tests' emulator instead, with the same host
# libraries, as for armhf.
set(DMS_CROSS_TRIPLET i686-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)

execute_process(COMMAND /lib/ld-linux.so.2 --version RESULT_VARIABLE DMS_I386_NATIVE OUTPUT_QUIET ERROR_QUIET)
if(NOT DMS_I386_NATIVE EQUAL 0)
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-i386)
endif()
