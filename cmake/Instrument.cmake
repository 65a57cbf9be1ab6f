# TESSRA_INSTRUMENT instruments the whole build: a list of sanitizers as -fsanitize takes it
# ("address,undefined", "thread"), or "coverage".
set(TESSRA_INSTRUMENT "" CACHE STRING "Sanitizers, comma separated, or \"coverage\"")

if(TESSRA_BUILD_FUZZERS)
  if(NOT (CMAKE_CXX_COMPILER_ID MATCHES Clang AND TESSRA_INSTRUMENT))
    message(FATAL_ERROR "The fuzzers need clang and a sanitizer: cmake --preset fuzz")
  endif()
  # libFuzzer learns from the library which branches an input reached.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(TESSRA_INSTRUMENT STREQUAL "coverage")
  add_compile_options(--coverage)
  add_link_options(--coverage)
elseif(TESSRA_INSTRUMENT)
  add_compile_options(-fsanitize=${TESSRA_INSTRUMENT} -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TESSRA_INSTRUMENT})
endif()
