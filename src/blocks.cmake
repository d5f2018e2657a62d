# The library of what ties blocks to files: the registry of mappings, and the reader of a block's instructions.
ceilmeter_library(ceilmeter_blocks SOURCES fd_names.cpp instruction_finder.cpp mappings.cpp
  LIBRARIES ceilmeter_common Threads::Threads)
