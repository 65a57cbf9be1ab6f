# The build machine's own processor with musl. There is no C++ runtime for it here, so programs do
# without one.
#
# C++ sources use the native compiler's standard headers, which were configured for glibc; this file
# replaces two of them. Everything is linked with musl-gcc. CMake's own checks can't link C++
# programs with it, so they only compile.
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine
  OUTPUT_VARIABLE triplet OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
  OUTPUT_VARIABLE gcc_headers OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REGEX MATCH "^[^-]*" processor ${triplet})
set(replaced ${CMAKE_BINARY_DIR}/musl-headers)
file(READ /usr/include/${triplet}/c++/12/bits/c++config.h config)
set(absent "_GLIBCXX_HAVE_(AT_)?QUICK_EXIT|_GLIBCXX_USE_PTHREAD_[A-Z_]*CLOCK[A-Z]*")
string(REGEX REPLACE "#define (${absent}) 1" "" config "${config}")
file(WRITE ${replaced}/bits/c++config.h "${config}")
file(WRITE ${replaced}/bits/os_defines.h "#define __locale_t locale_t\n")
string(JOIN " -isystem " CMAKE_CXX_FLAGS_INIT "-nostdinc -nostdinc++"
  ${replaced} /usr/include/c++/12 /usr/include/${triplet}/c++/12
  /usr/include/${processor}-linux-musl ${gcc_headers})
