# GoogleTest is built from the sources that Debian packages, so that the same library serves the cross build and every
# sanitizer build. Optimised with sanitizers it would take longer to compile than any file of the project, and it is not
# what the sanitizers are for. In the emulator an unoptimised one starts slower.
include(GoogleTest)
set(CEILMETER_GOOGLETEST_DIR /usr/src/googletest CACHE PATH "GoogleTest's source tree")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory("${CEILMETER_GOOGLETEST_DIR}" "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
foreach(library gtest gmock gtest_main gmock_main)
  if(CEILMETER_SANITIZE)
    target_compile_options(${library} PRIVATE -fsanitize=${CEILMETER_SANITIZE} -fno-omit-frame-pointer -O0)
  endif()
endforeach()
