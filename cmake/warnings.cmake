# Flags every target of this tree is built with. Warnings are errors.
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-restrict)  # false alarms in std::string of GCC 12 (bug 105651)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  # Objects are fat: programs link with link-time optimisation, tests link the plain code and stay quick to build.
  set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-flto=auto -ffat-lto-objects)
  endif()
endif()
if(QUENMARK_SANITIZE)
  add_compile_options(-fsanitize=${QUENMARK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QUENMARK_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # False alarms in the standard library once checks are woven in; ordinary builds keep the warning.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
add_compile_definitions(_FILE_OFFSET_BITS=64)

# optimised_program(TARGET): links TARGET with link-time optimisation in release builds.
function(optimised_program target)
  if(CMAKE_BUILD_TYPE STREQUAL "Release" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_link_options(${target} PRIVATE -flto=auto -O2)
  endif()
endfunction()

# plain_program(TARGET): links TARGET from the plain code of the fat objects.
function(plain_program target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -fno-lto)
    target_link_options(${target} PRIVATE -fno-lto)
  endif()
endfunction()

# quick_to_build(TARGET): neither optimises TARGET, which serves the tests, nor checks it for undefined behaviour; the code
# under test is built in full.
function(quick_to_build target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND (CMAKE_BUILD_TYPE STREQUAL "Release" OR QUENMARK_SANITIZE))
    target_compile_options(${target} PRIVATE -O0)
    if(QUENMARK_SANITIZE)
      target_compile_options(${target} PRIVATE -fno-sanitize=undefined)
    endif()
  endif()
endfunction()
