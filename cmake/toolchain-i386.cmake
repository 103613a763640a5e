# Cross build for 32-bit x86 with Debian's i686-linux-gnu toolchain. The
# results run natively on an x86-64 kernel that starts 32-bit programs
# (libc6-i386, lib32stdc++6), so no emulator is set and the system tests can
# start them too. A kernel without that support gets qemu-user as the tests'
# emulator instead, with the same host libraries, as for armhf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

execute_process(COMMAND /lib/ld-linux.so.2 --version RESULT_VARIABLE DMS_I386_NATIVE OUTPUT_QUIET ERROR_QUIET)
if(NOT DMS_I386_NATIVE EQUAL 0)
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-i386)
endif()
