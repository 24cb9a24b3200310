# Each folder (or half of one) is a static library that links, and so can include, only what is named.

set(ZENDAR_WARNINGS -Wall -Wextra -Wpedantic -Wconversion -Wno-sign-conversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 sees overlaps in "text" + std::string that are not there.
    list(APPEND ZENDAR_WARNINGS -Wno-restrict)
endif()
if(ZENDAR_WERROR)
    list(APPEND ZENDAR_WARNINGS -Werror)
endif()

if(ZENDAR_SANITIZE)
    add_compile_options(-fsanitize=${ZENDAR_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${ZENDAR_SANITIZE})
    if(ZENDAR_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()

# zendar_library(name FOLDER folder SOURCES ... MAY_INCLUDE targets ...)
# Headers of a folder are reached as "modxxx.hpp" by everything that links to the target.
function(zendar_library name)
    cmake_parse_arguments(arg "" "FOLDER" "SOURCES;MAY_INCLUDE" ${ARGN})
    add_library(zendar_${name} STATIC ${arg_SOURCES})
    target_include_directories(zendar_${name} PUBLIC ${arg_FOLDER})
    target_compile_options(zendar_${name} PRIVATE ${ZENDAR_WARNINGS})
    target_link_libraries(zendar_${name} PUBLIC OpenMP::OpenMP_CXX)
    foreach(other ${arg_MAY_INCLUDE})
        target_link_libraries(zendar_${name} PUBLIC zendar_${other})
    endforeach()
endfunction()

# zendar_test(name SOURCES ... LINKS targets ... TIMEOUT seconds): one test program, its cases found at test time.
function(zendar_test name)
    cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LINKS" ${ARGN})
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 300)
    endif()
    add_executable(${name} ${arg_SOURCES})
    # The time of the tests is that of what they call; compiling them is two thirds of a build.
    target_compile_options(${name} PRIVATE ${ZENDAR_WARNINGS} $<$<CONFIG:Release>:-O1>)
    target_link_libraries(${name} PRIVATE ${arg_LINKS} zendar_support GTest::gmock GTest::gtest_main)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES
        ENVIRONMENT "OMP_WAIT_POLICY=PASSIVE;OMP_NUM_THREADS=2"
        TIMEOUT ${arg_TIMEOUT} COST ${arg_TIMEOUT}) # the longest first
endfunction()
