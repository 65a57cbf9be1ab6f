# 32-bit ARM (ARMv7-A, Thumb-2, hard float) with uClibc-ng: Debian's cross compiler. The option -specs
# makes it use the sysroot of scripts/cross/setup.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../../scripts/cross/setup --folder
  OUTPUT_VARIABLE TESSRA_CROSS_FOLDER OUTPUT_STRIP_TRAILING_WHITESPACE)
set(sysroot ${TESSRA_CROSS_FOLDER}/uclibc)
if(NOT EXISTS ${sysroot}/stamp)
  message(FATAL_ERROR "No uClibc in ${sysroot}: scripts/cross/setup builds it.")
endif()
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_C_FLAGS_INIT -specs=${sysroot}/uclibc.specs)
set(CMAKE_CXX_FLAGS_INIT "-specs=${sysroot}/uclibc.specs -Wno-psabi")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${sysroot})
# The suite's programs run in a machine with a kernel of its own, where vfork(), select() and exec
# behave as on the device.
set(TESSRA_MACHINE ${CMAKE_CURRENT_LIST_DIR}/../../scripts/cross/machine)
set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
