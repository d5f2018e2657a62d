// A program that was built with a checker of memory accesses or of threads brings a run-time library that takes fixed
// parts of the address space, the tool's own among them.
#pragma once

#include <string>

namespace ceilmeter {

// The checker's name and what becomes of the program under the tracer, in words; empty: it has no such checker, or its
// file cannot be read. Looks for the entry point of the run-time library among the names that the dynamic loader binds:
// the file refers to it there, or, with the library linked into it, defines it. Any thread may call it.
std::string fate_of_checked_build(const std::string& path);

}  // namespace ceilmeter
