# ceilmeter_vm_test: a ctest that runs its command on a real arm64 kernel in a virtual machine (tools/vm/run). Paths in
# COMMAND are the machine's: this build tree is /build, the source tree /src, both read-only.

# ceilmeter_vm_test(NAME name [CPUS n] [MEMORY megabytes] [NUMA] [ZOO] [PARANOID n] [TIMEOUT seconds] [LABELS label...]
#   COMMAND command [argument...])
# registers aarch64.vm.<name>. The machine's own bound is TIMEOUT (default 300); ctest's lies beyond it, so that a hang
# ends with the console's tail in the log.
function(ceilmeter_vm_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "NUMA;ZOO" "NAME;CPUS;CPU;MEMORY;PARANOID;TIMEOUT" "LABELS;COMMAND")
  if(arg_UNPARSED_ARGUMENTS OR NOT arg_NAME OR NOT arg_COMMAND)
    message(FATAL_ERROR "ceilmeter_vm_test wants NAME and COMMAND, and knows no '${arg_UNPARSED_ARGUMENTS}'")
  endif()
  set(timeout 300)
  if(arg_TIMEOUT)
    set(timeout "${arg_TIMEOUT}")
  endif()
  set(options --build "${CMAKE_BINARY_DIR}" --timeout "${timeout}")
  foreach(option CPUS CPU MEMORY PARANOID)
    if(DEFINED arg_${option})
      string(TOLOWER "--${option}" word)
      list(APPEND options "${word}" "${arg_${option}}")
    endif()
  endforeach()
  if(arg_NUMA)
    list(APPEND options --numa)
  endif()
  if(arg_ZOO)
    list(APPEND options --zoo)
  endif()
  set(test "aarch64.vm.${arg_NAME}")
  add_test(NAME "${test}" COMMAND "${PROJECT_SOURCE_DIR}/tools/vm/run" ${options} -- ${arg_COMMAND})
  # A machine keeps two processors of the host busy: one at a time.
  math(EXPR limit "${timeout} + 60")
  set_tests_properties("${test}" PROPERTIES PROCESSORS 2 TIMEOUT "${limit}" LABELS "vm;${arg_LABELS}")
endfunction()
