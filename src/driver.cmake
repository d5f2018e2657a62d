# The driver: what main stands on that is portable, and the executable.
ceilmeter_library(ceilmeter_driver SOURCES option_parser.cpp run_application.cpp LIBRARIES ceilmeter_common)

if(NOT CEILMETER_HOST)
  add_subdirectory(elf)
  configure_file(build_configuration.h.in "${PROJECT_BINARY_DIR}/generated/build_configuration.h" @ONLY)

  add_executable(ceilmeter main.cpp collector.cpp run_benchmarks.cpp)
  target_include_directories(ceilmeter PRIVATE "${PROJECT_BINARY_DIR}/generated")
  target_link_libraries(ceilmeter PRIVATE ceilmeter_driver ceilmeter_report ceilmeter_perfmon ceilmeter_benchmarks
    ceilmeter_bintracer ceilmeter_bi)
  # Non-relocatable and far from where the kernel and the C library put images: an application's own image is loaded
  # beside the tool in one address space.
  target_link_options(ceilmeter PRIVATE -Wl,-Ttext-segment=0x7000000000)
  set_target_properties(ceilmeter PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}")
  install(TARGETS ceilmeter)
endif()
