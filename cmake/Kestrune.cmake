# Build helpers shared by every module, test, benchmark and fuzz target.

# Warnings apply to our own code only; third-party headers come in as SYSTEM.
set(KESTRUNE_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 at -O3 reports impossible overlaps and sizes inside libstdc++'s
  # own string code (false positives); they are not findings in our code.
  list(APPEND KESTRUNE_WARNINGS -Wno-restrict -Wno-stringop-overflow -Wno-array-bounds)
endif()

if(KESTRUNE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
if(KESTRUNE_FUZZ)
  # Every library gets coverage instrumentation; only fuzz executables link
  # the libFuzzer driver.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  add_link_options(-Wl,--as-needed)
endif()

# kestrune_library(<target> [DEPS <libs>...])
# A static library from every .cpp below the calling directory. Headers are
# included by their path from the repository root ("MailCore/Store/X.h").
function(kestrune_library target)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(sources)
    add_library(${target} STATIC ${sources})
    target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}")
    target_compile_options(${target} PRIVATE ${KESTRUNE_WARNINGS})
    target_link_libraries(${target} PUBLIC ${ARG_DEPS})
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE "${PROJECT_SOURCE_DIR}")
    target_link_libraries(${target} INTERFACE ${ARG_DEPS})
  endif()
endfunction()

# kestrune_test(<target> [DEPS <libs>...] [TIMEOUT <seconds>] [LABELS <labels>...])
# One GoogleTest executable from every .cpp in the calling directory, run by
# ctest as one test.
function(kestrune_test target)
  cmake_parse_arguments(ARG "" "TIMEOUT" "DEPS;LABELS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  add_executable(${target} ${sources})
  target_compile_options(${target} PRIVATE ${KESTRUNE_WARNINGS})
  target_link_libraries(${target} PRIVATE ${ARG_DEPS} KestruneTestSupport GTest::gmock
                                          GTest::gtest_main)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_test(NAME ${target} COMMAND ${target})
  set_tests_properties(${target} PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "KESTRUNE_SOURCE_DIR=${PROJECT_SOURCE_DIR};KESTRUNE_BINARY_DIR=${PROJECT_BINARY_DIR}")
  if(ARG_LABELS)
    set_tests_properties(${target} PROPERTIES LABELS "${ARG_LABELS}")
  endif()
endfunction()

# kestrune_benchmark(<target> [DEPS <libs>...]): every .cpp in the calling directory.
function(kestrune_benchmark target)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  add_executable(${target} ${sources})
  target_compile_options(${target} PRIVATE ${KESTRUNE_WARNINGS})
  target_link_libraries(${target} PRIVATE ${ARG_DEPS} benchmark::benchmark)
endfunction()

# kestrune_fuzzer(<Source> [DEPS <libs>...] [SECONDS <n>])
# A libFuzzer target from <Source>.cpp (named XxxFuzzer), called xxx_fuzzer,
# plus a ctest entry fuzz_xxx_fuzzer that runs it for a bounded time on its
# seed corpus (corpus/xxx_fuzzer beside it, read only; new inputs go to the
# build tree).
function(kestrune_fuzzer source)
  cmake_parse_arguments(ARG "" "SECONDS" "DEPS" ${ARGN})
  if(NOT source MATCHES "Fuzzer$")
    message(FATAL_ERROR "fuzz target sources are named XxxFuzzer.cpp: ${source}")
  endif()
  if(NOT ARG_SECONDS)
    set(ARG_SECONDS 10)
  endif()
  string(REGEX REPLACE "([a-z0-9])([A-Z])" "\\1_\\2" name "${source}")
  string(TOLOWER "${name}" name)
  add_executable(${name} ${source}.cpp)
  target_compile_options(${name} PRIVATE ${KESTRUNE_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set(work "${CMAKE_CURRENT_BINARY_DIR}/corpus-${name}")
  file(MAKE_DIRECTORY "${work}")
  set(seeds "${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name}")
  set(args -max_total_time=${ARG_SECONDS} -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "${work}")
  if(EXISTS "${seeds}")
    list(APPEND args "${seeds}")
  endif()
  if(KESTRUNE_TESTS)
    add_test(NAME fuzz_${name} COMMAND ${name} ${args})
    set_tests_properties(fuzz_${name} PROPERTIES LABELS fuzz TIMEOUT 300)
  endif()
endfunction()

# Adds every immediate subdirectory (recursively) that has a CMakeLists.txt.
function(kestrune_add_subdirectories)
  file(GLOB_RECURSE lists CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*/CMakeLists.txt")
  list(FILTER lists EXCLUDE REGEX "/node_modules/")
  list(SORT lists)
  foreach(l ${lists})
    get_filename_component(d "${l}" DIRECTORY)
    add_subdirectory("${d}")
  endforeach()
endfunction()
