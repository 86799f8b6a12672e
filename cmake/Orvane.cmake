# Shared build rules for Orvane's libraries, tests, benchmarks and fuzz targets.

set(CMAKE_AUTOMOC ON)

add_library(orvane_options INTERFACE)
target_compile_options(orvane_options INTERFACE -Wall -Wextra -Wpedantic -Wno-missing-field-initializers)
target_compile_definitions(orvane_options INTERFACE QT_NO_FOREACH)
if(ORVANE_WERROR)
    target_compile_options(orvane_options INTERFACE -Werror)
endif()
if(ORVANE_SANITIZE)
    target_compile_options(orvane_options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(orvane_options INTERFACE -fsanitize=address,undefined)
endif()

# orvane_library(NAME DEPS ...): one static library from every source in src/NAME.
# Files ending in _mac.cpp or _win.cpp belong to other platforms and are left out.
function(orvane_library name)
    cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS
        ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    list(FILTER sources EXCLUDE REGEX "_(mac|win)\\.cpp$")
    add_library(orvane_${name} STATIC ${sources})
    add_library(orvane::${name} ALIAS orvane_${name})
    target_include_directories(orvane_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(orvane_${name} PUBLIC orvane_options ${ARG_DEPS})
endfunction()

# orvane_test(NAME SOURCES ... DEPS ... [TIMEOUT s] [LABELS ...]): a Qt Test program
# registered with CTest. Tests run with strict checks, so a broken invariant aborts.
function(orvane_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE orvane_options Qt6::Test ${ARG_DEPS})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
    target_compile_definitions(${name} PRIVATE
        ORVANE_TEST_DATA="${CMAKE_CURRENT_SOURCE_DIR}"
        ORVANE_BINARY_DIR="${PROJECT_BINARY_DIR}")
    add_test(NAME ${name} COMMAND ${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set_tests_properties(${name} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT}
        LABELS "${ARG_LABELS}"
        ENVIRONMENT "ORVANE_STRICT_CHECKS=1;QT_QPA_PLATFORM=offscreen;QT_MAX_CACHED_GLYPH_SIZE=256;ORVANE_EXECUTABLE=$<TARGET_FILE:orvane>;LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp")
endfunction()
