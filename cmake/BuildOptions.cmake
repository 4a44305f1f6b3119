# What every target is compiled with: warnings, sanitizers, floating-point rules. One place.
add_library(vorrel_build_options INTERFACE)
target_compile_options(vorrel_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Werror
    # One result on every machine: a product and a sum stay two roundings.
    -ffp-contract=off
    # Trace lines name the source; the directories of the build machine are nobody's business.
    -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${CMAKE_BINARY_DIR}/=
    $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>)
# Against those who find a mistake before we do (docs/security.md). Optimised builds alone, as
# _FORTIFY_SOURCE asks for it; the sanitizers have checks of their own. HardeningTest looks at the result.
if(NOT VORREL_SANITIZE AND NOT VORREL_COVERAGE AND NOT APPLE)
    set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
    target_compile_options(vorrel_build_options INTERFACE
        $<${optimised}:-fstack-protector-strong>
        $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
        target_compile_options(vorrel_build_options INTERFACE $<${optimised}:-fcf-protection=full>)
    endif()
    target_link_options(vorrel_build_options INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()
if(VORREL_SANITIZE)
    target_compile_options(vorrel_build_options INTERFACE
        -fsanitize=${VORREL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(vorrel_build_options INTERFACE -fsanitize=${VORREL_SANITIZE})
endif()
if(VORREL_COVERAGE)
    # Counts of lines that several threads pass at once are lost, or run negative, unless they are atomic.
    target_compile_options(vorrel_build_options INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(vorrel_build_options INTERFACE --coverage)
endif()

# vorrel_add_tests(NAME name LABEL unit|integration|interop|stress SOURCES ... LIBRARIES ...)
# One test program of one folder; every case becomes a ctest of its own.
function(vorrel_add_tests)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME;LABEL;TIMEOUT" "SOURCES;LIBRARIES")
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    if(VORREL_COVERAGE)
        math(EXPR arg_TIMEOUT "${arg_TIMEOUT} * 5")  # whoever counts every line is slow
    endif()
    add_executable(${arg_NAME} ${arg_SOURCES})
    target_include_directories(${arg_NAME} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
    target_link_libraries(${arg_NAME} PRIVATE ${arg_LIBRARIES} vorrel_build_options GTest::gmock GTest::gtest_main)
    # Without the bytes of a parameter, which differ from run to run and drown what a log has to say.
    # Heavy load has the machine for itself: beside it others would lose buffers, and beside them it would.
    set(alone FALSE)
    if(arg_LABEL STREQUAL stress)
        set(alone TRUE)
    endif()
    gtest_discover_tests(${arg_NAME} DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES
        PROPERTIES LABELS ${arg_LABEL} TIMEOUT ${arg_TIMEOUT} RUN_SERIAL ${alone})
endfunction()
