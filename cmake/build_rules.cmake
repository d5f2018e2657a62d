# Rules that every target of the project shares: language level, warnings, sanitizers, and the two helpers with
# which a folder declares its library and its unit tests.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# The tool is not relocatable, because its kernels hold absolute address words. Distributions' compilers make
# position-independent executables by default, so that is switched off for AArch64. The host's sanitizers prefer it.
if(NOT CEILMETER_HOST AND NOT CEILMETER_VIEWER_ONLY)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
endif()

# Executables that run an application are linked at this address. The application's image is loaded beside the tool in
# one address space, so the address is far from where the kernel and the C library put images.
set(CEILMETER_IMAGE_BASE 0x7000000000)

# The dynamic linker would bind the references of a shared libstdc++ at each start, in 1.3 million instructions, nearly
# all that run before the application's first. So the executables contain the little that they use of it, if there is an
# archive. libgcc_s stays shared, because the C library would load it at the end of a thread.
if(NOT CEILMETER_HOST AND NOT CEILMETER_VIEWER_ONLY)
  include(CheckLinkerFlag)
  check_linker_flag(CXX -static-libstdc++ CEILMETER_HAS_STATIC_LIBSTDCXX)
endif()

# ceilmeter_link_at_image_base(TARGET): links the executable, which is not relocatable, at that address.
function(ceilmeter_link_at_image_base target)
  target_link_options(${target} PRIVATE "-Wl,-Ttext-segment=${CEILMETER_IMAGE_BASE}")
  if(CEILMETER_HAS_STATIC_LIBSTDCXX)
    target_link_options(${target} PRIVATE -static-libstdc++)
  endif()
endfunction()

find_package(Threads REQUIRED)

# The system's own Python has the distribution's modules. The viewer alone needs no Python.
if(NOT CEILMETER_VIEWER_ONLY)
  find_program(CEILMETER_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

add_library(ceilmeter_rules INTERFACE)
target_include_directories(ceilmeter_rules INTERFACE "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(ceilmeter_rules INTERFACE _GNU_SOURCE)
# Commands that compile code for the building machine in a build for AArch64 use this list, too.
set(CEILMETER_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef -Wvla)
if(CEILMETER_WERROR)
  list(APPEND CEILMETER_WARNINGS -Werror)
endif()
target_compile_options(ceilmeter_rules INTERFACE "$<$<COMPILE_LANGUAGE:C,CXX>:${CEILMETER_WARNINGS}>")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 reports overlaps inside std::string's own operator+ when it inlines it.
  target_compile_options(ceilmeter_rules INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
if(CEILMETER_SANITIZE)
  # A report needs lines and no variables, and little optimisation: this takes half the time to compile.
  set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O1 -g1 -DNDEBUG")
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1 -DNDEBUG")
  target_compile_options(ceilmeter_rules INTERFACE
    -fsanitize=${CEILMETER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(ceilmeter_rules INTERFACE -fsanitize=${CEILMETER_SANITIZE})
endif()

# The build type's level of optimisation, for files that keep it in a target that has another.
string(REGEX MATCH "-O[0-3sg]" ceilmeter_optimisation "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  set(ceilmeter_optimisation -O0)
endif()

# The name that tells this build tree's tests from another tree's in one common test run.
if(CEILMETER_HOST)
  get_filename_component(ceilmeter_tree "${CMAKE_BINARY_DIR}" NAME)
  set(CEILMETER_TEST_PREFIX "${ceilmeter_tree}.")
else()
  set(CEILMETER_TEST_PREFIX "aarch64.")
endif()

# ceilmeter_library(NAME SOURCES ... LIBRARIES ...): a library of src/.
function(ceilmeter_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC ceilmeter_rules ${arg_LIBRARIES})
endfunction()

# ceilmeter_compile_as_test(TARGET): the sources of a GoogleTest executable are compiled without optimisation, which
# takes half the time, and with GoogleTest's headers precompiled once for the tree, which takes off half of the rest.
# The code under test is in libraries, which are compiled as everywhere; so are SOURCES below src/.
# With a compiler launcher no header is precompiled: the launcher is a compiler cache, and that cannot keep objects that
# were compiled with precompiled headers.
function(ceilmeter_compile_as_test target)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:C,CXX>:-O0>)
  get_target_property(sources ${target} SOURCES)
  list(FILTER sources INCLUDE REGEX "^${PROJECT_SOURCE_DIR}/src/.*[.]cpp$")
  set_source_files_properties(${sources} PROPERTIES COMPILE_OPTIONS "${ceilmeter_optimisation}"
    SKIP_PRECOMPILE_HEADERS ON)
  if(CMAKE_CXX_COMPILER_LAUNCHER)
    return()
  endif()
  if(NOT TARGET ceilmeter_test_headers)
    file(WRITE "${CMAKE_BINARY_DIR}/generated/test_headers.cpp" "// Only its precompiled headers are used.\n")
    add_library(ceilmeter_test_headers STATIC "${CMAKE_BINARY_DIR}/generated/test_headers.cpp")
    target_link_libraries(ceilmeter_test_headers PRIVATE ceilmeter_rules gtest gmock)
    target_compile_options(ceilmeter_test_headers PRIVATE $<$<COMPILE_LANGUAGE:C,CXX>:-O0>)
    target_precompile_headers(ceilmeter_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
  endif()
  target_precompile_headers(${target} REUSE_FROM ceilmeter_test_headers)
endfunction()

# ceilmeter_unit_test(NAME SOURCES ... LIBRARIES ...): one GoogleTest executable whose tests ctest lists one by one.
# On a cross build they run under the user-mode emulator.
function(ceilmeter_unit_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ceilmeter_rules ${arg_LIBRARIES} gtest gmock gtest_main)
  ceilmeter_compile_as_test(${name})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${CEILMETER_TEST_PREFIX}"
    DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 300)
endfunction()
