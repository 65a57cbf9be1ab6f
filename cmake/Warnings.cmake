# The warnings that our own code must not cause. tessra_warnings(TARGET) is for the library, and
# tessra_program_warnings(TARGET) for tests and examples, which are less strict with conversions.
include(CheckCXXCompilerFlag)

set(TESSRA_PROGRAM_WARNINGS
  -Wall -Wextra -Wpedantic -Wpointer-arith -Wshadow -Wundef -Wvla
  "$<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi;-Wnon-virtual-dtor;-Woverloaded-virtual>"
  $<$<BOOL:${TESSRA_WERROR}>:-Werror>)
set(TESSRA_LIBRARY_WARNINGS
  -Wcast-qual -Wconversion -Wdouble-promotion -Wformat=2 -Wmissing-declarations -Wnull-dereference
  -Wsign-conversion -Wwrite-strings)
# Only GCC has these.
foreach(flag IN ITEMS -Wduplicated-branches -Wduplicated-cond -Wlogical-op)
  string(MAKE_C_IDENTIFIER "TESSRA_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    list(APPEND TESSRA_LIBRARY_WARNINGS ${flag})
  endif()
endforeach()

function(tessra_program_warnings target)
  target_compile_options(${target} PRIVATE ${TESSRA_PROGRAM_WARNINGS})
endfunction()

function(tessra_warnings target)
  target_compile_options(${target} PRIVATE ${TESSRA_PROGRAM_WARNINGS} ${TESSRA_LIBRARY_WARNINGS})
endfunction()
