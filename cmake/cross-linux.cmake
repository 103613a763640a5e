# What every cross build shares: Debian's cross compilers for the triplet
# DMS_CROSS_TRIPLET, whose libraries and headers under /usr/<triplet> are the
# target's root. Included by the toolchain file of each architecture.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${DMS_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${DMS_CROSS_TRIPLET}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${DMS_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
