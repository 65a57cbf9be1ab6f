# 32-bit ARM (ARMv5, no Thumb-2, soft float, atomics by the kernel's helpers) with glibc.
set(triplet arm-linux-gnueabi)
include(${CMAKE_CURRENT_LIST_DIR}/arm-glibc.cmake)
