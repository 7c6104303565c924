# Compiler flags as three interface libraries:
#   qel_product_flags  library, daemon, fabric: no exceptions, no RTTI, hidden symbols
#   qel_tool_flags     examples and benchmarks: the same warnings, ordinary C and C++
#   qel_test_flags     tests: the same warnings; not optimised, so that they build fast
# qel_link_flags carries what every link of this configuration needs.
set(CMAKE_C_FLAGS_RELEASE "-O2 -g")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g")
set(CMAKE_C_FLAGS_DEBUG "-O0 -g")
set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g")

set(warnings
    -Werror -Wall -Wextra -Wpedantic -Wshadow -Wvla -Wundef -Wcast-align -Wpointer-arith -Wwrite-strings
    -Wimplicit-fallthrough
    -Wformat=2 -Wno-format-nonliteral # the log functions hand formats on; callers are checked by attribute
)
set(warnings_cxx -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND warnings -Wduplicated-cond -Wlogical-op)
else()
    list(APPEND warnings -Wno-gnu-zero-variadic-macro-arguments) # gtest's typed and parameterised macros
endif()

add_library(qel_link_flags INTERFACE)
add_library(qel_tool_flags INTERFACE)
add_library(qel_test_flags INTERFACE)
add_library(qel_product_flags INTERFACE)

target_compile_options(qel_tool_flags INTERFACE ${warnings} $<$<COMPILE_LANGUAGE:CXX>:${warnings_cxx}>)
target_compile_definitions(qel_tool_flags INTERFACE _GNU_SOURCE)
target_link_libraries(qel_tool_flags INTERFACE qel_link_flags)

target_link_libraries(qel_test_flags INTERFACE qel_tool_flags)
target_compile_options(qel_test_flags INTERFACE $<$<CONFIG:Release>:-O0>)

target_link_libraries(qel_product_flags INTERFACE qel_tool_flags)
target_compile_options(qel_product_flags INTERFACE
    -Wmissing-declarations -fvisibility=hidden -fvisibility-inlines-hidden -fstack-protector-strong
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
add_library(qel_renamed_main_flags INTERFACE) # main() has no declaration under its other name either
target_compile_options(qel_renamed_main_flags INTERFACE -Wno-missing-declarations)
if(NOT QEL_SANITIZE AND NOT QEL_COVERAGE)
    target_compile_options(qel_product_flags INTERFACE
        $<$<CONFIG:Release>:-U_FORTIFY_SOURCE> $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
    target_link_options(qel_link_flags INTERFACE -Wl,-z,relro -Wl,-z,now)
endif()
# The library's own assertions are always on; those of the C++ library are for the configurations that look
# for faults.
if(NOT CMAKE_BUILD_TYPE STREQUAL "Release" OR QEL_SANITIZE OR QEL_FUZZ)
    add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()

if(QEL_SANITIZE)
    add_compile_options(-fsanitize=${QEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${QEL_SANITIZE})
endif()
if(QEL_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link -O2) # millions of runs
endif()
if(QEL_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()
if(QEL_THREAD_SAFETY)
    target_compile_options(qel_product_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(QEL_LTO)
    include(CheckIPOSupported)
    check_ipo_supported()
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
endif()
