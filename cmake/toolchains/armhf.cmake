# 32-bit ARM (ARMv7-A, Thumb-2, hard float) with glibc.
set(triplet arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/arm-glibc.cmake)
