option(QUORVELD_TESTS "Build the tests" ON)
option(QUORVELD_BENCH "Build the benchmarks" OFF)
option(QUORVELD_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
set(QUORVELD_SANITIZE "" CACHE STRING "Sanitizers for every target: address,undefined or thread")

# Warnings are errors where the code is developed (CMAKE_COMPILE_WARNING_AS_ERROR in the presets): a compiler that is newer
# than the code must not stop those who only build it.
add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -Wimplicit-fallthrough
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # With optimisation it takes what a std::variant or an empty std::optional doesn't hold for uninitialised values in use.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-maybe-uninitialized>)
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # And string concatenation for overlapping copies.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
  endif()
endif()
if(QUORVELD_SANITIZE)
  add_compile_options(-fsanitize=${QUORVELD_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QUORVELD_SANITIZE})
  # What is linked then is large: lld takes a fifth of ld's time for it.
  find_program(LLD ld.lld)
  if(LLD AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    add_link_options(-fuse-ld=lld)
  endif()
  # Clang's look at an object's type opens a pipe, to see whether memory can be read: with no descriptor left, it can't.
  add_compile_options($<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=vptr>)
endif()
if(QUORVELD_FUZZ)
  # Coverage guides the fuzzers: our own code's and the parsers' that it is handed to. Counting what the standard library and
  # the command line's parser do would cost a fifth of the time that compiling takes, and tell nothing.
  # What isn't counted at all has no use for the list, and Clang would say so.
  add_compile_options(-fsanitize=fuzzer-no-link -fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/cmake/no_coverage.txt
                      -Wno-unused-command-line-argument)
endif()
include_directories(${PROJECT_SOURCE_DIR})
find_package(Threads REQUIRED)
find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

# quorveld_library(NAME sources...): a static library of one folder.
function(quorveld_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
endfunction()

# quorveld_tells_version(SOURCE...): defines QUORVELD_VERSION in these files of this folder's target, so that a new version
# compiles no others.
function(quorveld_tells_version)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_DEFINITIONS "QUORVELD_VERSION=\"${PROJECT_VERSION}\"")
endfunction()
