# Rules that every target of the project shares: language level, warnings, sanitizers, and the two helpers with
# which a folder declares its library and its unit tests.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# The tool is a non-relocatable executable, and its kernels hold absolute address words: position-independent
# executables, which distributions' compilers make by default, are switched off for AArch64. The host's sanitizers
# prefer the default.
if(NOT CEILMETER_HOST AND NOT CEILMETER_VIEWER_ONLY)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
endif()

# Where the executables that run an application are linked: far from where the kernel and the C library put images,
# since the application's own image is loaded beside the tool in one address space.
set(CEILMETER_IMAGE_BASE 0x7000000000)

# ceilmeter_link_at_image_base(TARGET): links the executable, which is not relocatable, at that address.
function(ceilmeter_link_at_image_base target)
  target_link_options(${target} PRIVATE "-Wl,-Ttext-segment=${CEILMETER_IMAGE_BASE}")
endfunction()

find_package(Threads REQUIRED)

# The system's own: it has the distribution's modules. The viewer alone needs none.
if(NOT CEILMETER_VIEWER_ONLY)
  find_program(CEILMETER_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

add_library(ceilmeter_rules INTERFACE)
target_include_directories(ceilmeter_rules INTERFACE "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(ceilmeter_rules INTERFACE _GNU_SOURCE)
target_compile_options(ceilmeter_rules INTERFACE
  $<$<COMPILE_LANGUAGE:C,CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wundef -Wvla>
  $<$<AND:$<COMPILE_LANGUAGE:C,CXX>,$<BOOL:${CEILMETER_WERROR}>>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 reports overlaps inside std::string's own operator+ when it inlines it.
  target_compile_options(ceilmeter_rules INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
if(CEILMETER_SANITIZE)
  target_compile_options(ceilmeter_rules INTERFACE
    -fsanitize=${CEILMETER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(ceilmeter_rules INTERFACE -fsanitize=${CEILMETER_SANITIZE})
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

# ceilmeter_unit_test(NAME SOURCES ... LIBRARIES ...): one GoogleTest executable whose tests ctest lists one by one.
# On a cross build they run under the user-mode emulator.
function(ceilmeter_unit_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ceilmeter_rules ${arg_LIBRARIES} gtest gmock gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${CEILMETER_TEST_PREFIX}"
    DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 300)
endfunction()
