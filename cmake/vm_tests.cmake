# ceilmeter_vm_test: a ctest that runs its command on a real arm64 kernel in a virtual machine (tools/vm/run). Paths in
# COMMAND are the machine's: this build tree is /build, the source tree /src, both read-only.

# ceilmeter_vm_test(NAME name [CPUS n] [MEMORY megabytes] [PAGES kib] [NUMA] [ZOO] [SINGLE_STEPS] [PARANOID n]
#   [TIMEOUT seconds] [COST seconds] [BUSY_PROCESSORS n] [LABELS label...] COMMAND command [argument...])
# registers aarch64.vm.<name>. TIMEOUT (default 300) bounds the machine's run. ctest's own limit is longer, so that
# after a hang the log still gets the end of the console.
# BUSY_PROCESSORS tells ctest how many of the host's processors the test keeps busy. Most tests run one
# program after another and keep one processor busy, however many the machine has, so two of them run side by side. A
# test with CPUS has threads that run at once, and its default is 2.
# COST is about how long the test takes on an idle host. ctest starts costly tests first, so that no long one runs alone
# at the end.
function(ceilmeter_vm_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "NUMA;ZOO;SINGLE_STEPS"
    "NAME;CPUS;CPU;MEMORY;PAGES;PARANOID;TIMEOUT;COST;BUSY_PROCESSORS" "LABELS;COMMAND")
  if(arg_UNPARSED_ARGUMENTS OR NOT arg_NAME OR NOT arg_COMMAND)
    message(FATAL_ERROR "ceilmeter_vm_test wants NAME and COMMAND, and knows no '${arg_UNPARSED_ARGUMENTS}'")
  endif()
  set(timeout 300)
  if(arg_TIMEOUT)
    set(timeout "${arg_TIMEOUT}")
  endif()
  set(options --build "${CMAKE_BINARY_DIR}" --timeout "${timeout}")
  foreach(option CPUS CPU MEMORY PAGES PARANOID)
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
  if(arg_SINGLE_STEPS)
    list(APPEND options --single-steps)
  endif()
  set(test "aarch64.vm.${arg_NAME}")
  add_test(NAME "${test}" COMMAND "${PROJECT_SOURCE_DIR}/tools/vm/run" ${options} -- ${arg_COMMAND})
  set(busy 1)
  if(arg_BUSY_PROCESSORS)
    set(busy "${arg_BUSY_PROCESSORS}")
  elseif(arg_CPUS)
    set(busy 2)
  endif()
  set(cost 10)
  if(arg_COST)
    set(cost "${arg_COST}")
  endif()
  math(EXPR limit "${timeout} + 60")
  set_tests_properties("${test}" PROPERTIES PROCESSORS "${busy}" COST "${cost}" TIMEOUT "${limit}"
    LABELS "vm;${arg_LABELS}")
endfunction()
