# The library that applications link: libroofline_events.so and .a from the same objects, position-independent copies of
# the tool's own modules. Nothing but the five functions is visible in either of them, so that an application's own
# names, and its own copies of what is used here, never meet these.
include(GNUInstallDirs)
add_library(roofline_events_objects OBJECT
  roofline_events.cpp tracer_switch.cpp counter_group.cpp descriptor_room.cpp perfmon.cpp perfmon_utils.cpp
  region_result.cpp roofline_metrics.cpp silent_events.cpp
  "${PROJECT_SOURCE_DIR}/src/common/file_pattern.cpp"
  "${PROJECT_SOURCE_DIR}/src/common/log.cpp"
  "${PROJECT_SOURCE_DIR}/src/common/open_file.cpp"
  "${PROJECT_SOURCE_DIR}/src/finalizer.cpp"
  "${PROJECT_SOURCE_DIR}/src/report_handler.cpp"
  "${PROJECT_SOURCE_DIR}/src/result_damage.cpp"
  "${PROJECT_SOURCE_DIR}/src/result_file.cpp"
  "${PROJECT_SOURCE_DIR}/src/json/parse.cpp"
  "${PROJECT_SOURCE_DIR}/src/json/print.cpp"
  "${PROJECT_SOURCE_DIR}/src/json/tree.cpp")
target_link_libraries(roofline_events_objects PRIVATE ceilmeter_rules)
target_include_directories(roofline_events_objects PRIVATE "${PROJECT_SOURCE_DIR}/include")
# Each function's code stays in the one section of its file: linkers that fold equal sections must not give the empty
# function that the tracer writes into the address of another one.
target_compile_options(roofline_events_objects PRIVATE
  -fno-function-sections $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
set_target_properties(roofline_events_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON INTERPROCEDURAL_OPTIMIZATION
    OFF)

# The tracer takes a function's address to be the start of its mapping plus the symbol's value. That is right only if
# the executable segment begins at virtual address 0. GNU ld and LLVM's lld need different options for that.
include(CheckLinkerFlag)
set(CEILMETER_TRACEABLE_LINK_OPTIONS -Wl,-z,noseparate-code)
check_linker_flag(CXX -Wl,--no-rosegment CEILMETER_LINKER_HAS_NO_ROSEGMENT)
if(CEILMETER_LINKER_HAS_NO_ROSEGMENT)
  list(APPEND CEILMETER_TRACEABLE_LINK_OPTIONS -Wl,--no-rosegment)
endif()

add_library(roofline_events SHARED $<TARGET_OBJECTS:roofline_events_objects>)
add_library(roofline_events::roofline_events ALIAS roofline_events)
target_include_directories(roofline_events INTERFACE
  "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
target_link_options(roofline_events PRIVATE
  "-Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/roofline_events.map" -Wl,--no-undefined
  ${CEILMETER_TRACEABLE_LINK_OPTIONS})
target_link_libraries(roofline_events PRIVATE Threads::Threads)
set_target_properties(roofline_events PROPERTIES
  SOVERSION 0 LINKER_LANGUAGE CXX LINK_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/roofline_events.map"
  LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}")

# The archive has one object, in which everything but the five functions is local. Section groups are dissolved first.
# The linker drops a group if another object has the same one, and the local names would then point to nothing.
set(archive "${PROJECT_BINARY_DIR}/libroofline_events.a")
set(joined "${CMAKE_CURRENT_BINARY_DIR}/roofline_events.o")
add_custom_command(OUTPUT "${archive}"
  COMMAND "${CMAKE_LINKER}" -r --force-group-allocation -o "${joined}" $<TARGET_OBJECTS:roofline_events_objects>
  COMMAND "${CMAKE_OBJCOPY}" --keep-global-symbol=init_perf_roofline_events
    --keep-global-symbol=start_perf_roofline_events --keep-global-symbol=stop_perf_roofline_events
    --keep-global-symbol=finalize_perf_roofline_events --keep-global-symbol=dummy_func_to_disable_roofline_events
    "${joined}"
  COMMAND "${CMAKE_COMMAND}" -E rm -f "${archive}"
  COMMAND "${CMAKE_AR}" rcsD "${archive}" "${joined}"
  DEPENDS roofline_events_objects $<TARGET_OBJECTS:roofline_events_objects>
  COMMENT "Joining libroofline_events.a" COMMAND_EXPAND_LISTS VERBATIM)
add_custom_target(roofline_events_archive ALL DEPENDS "${archive}")

include("${PROJECT_SOURCE_DIR}/cmake/regions_package.cmake")
