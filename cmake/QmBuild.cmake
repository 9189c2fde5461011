# Compiler settings and the helper functions with which every folder declares its targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
# Position independence is left to the compiler, whose default it is: with CMake's own switch, libraries and executables
# would be compiled with different flags and couldn't share a precompiled header.
# -O3 makes GCC 12 see overflows in plain string concatenation, and gains nothing measurable here.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")

find_program(QM_CCACHE ccache)
if(QM_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Without these allowances ccache refuses every file that is compiled with a precompiled header.
    set(CMAKE_CXX_COMPILER_LAUNCHER
        ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
        ${QM_CCACHE})
endif()

add_library(qm_options INTERFACE)
target_compile_options(qm_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    -fstack-protector-strong)
target_link_libraries(qm_options INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(qm_options INTERFACE -fpch-preprocess)
endif()
if(QM_SANITIZE)
    target_compile_options(qm_options INTERFACE -fsanitize=${QM_SANITIZE} -fno-omit-frame-pointer -O1 -g
        -fno-sanitize-recover=all)
    target_link_options(qm_options INTERFACE -fsanitize=${QM_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND QM_SANITIZE MATCHES "thread")
        # GCC warns of atomic fences under ThreadSanitizer, which the standard library uses in its own headers.
        target_compile_options(qm_options INTERFACE -Wno-tsan)
    endif()
endif()
if(QM_FUZZERS)
    target_compile_options(qm_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined
        -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(qm_options INTERFACE -fsanitize=address,undefined)
endif()

# qm_library(<name> SOURCES <file>... [PUBLIC <lib>...] [PRIVATE <lib>...])
# One static library of the program; headers are included as "folder/file.h" from src/.
function(qm_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}/src" "${PROJECT_BINARY_DIR}/generated")
    target_link_libraries(${name} PUBLIC qm_options nlohmann_json::nlohmann_json ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
    target_precompile_headers(${name} REUSE_FROM qm_pch)
endfunction()

# qm_test(<name> SOURCES <file>... LIBS <lib>...)
# One GoogleTest executable; each test in it becomes a ctest entry of its own, so all may run in parallel.
function(qm_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
    target_link_libraries(${name} PRIVATE qm_options ${arg_LIBS} GTest::gmock_main)
    target_precompile_headers(${name} REUSE_FROM qm_test_pch)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endfunction()

# qm_benchmark(<name> SOURCES <file>... LIBS <lib>...)
function(qm_benchmark name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests" "${PROJECT_SOURCE_DIR}/bench")
    target_link_libraries(${name} PRIVATE qm_options ${arg_LIBS} benchmark::benchmark)
endfunction()

# qm_fuzzer(<name> SOURCES <file>... LIBS <lib>...); seed inputs stand in fuzz/corpus/<name>/.
function(qm_fuzzer name)
    cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE qm_options ${arg_LIBS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()
