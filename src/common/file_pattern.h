// Names of files with tokens in them, for the options that name a file: a process of a parallel job has one of its own.
#pragma once

#include <cstddef>

namespace ceilmeter {

// Copies `pattern` into the `size` bytes at `out`, replacing %p (process id), %r (rank), %t (thread id), %T (time),
// %h (host name); "%" before any other character gives that character. Always terminated. Returns `out`. Process id,
// host name and rank are those of the first call in the process. Any thread.
char* mora_expand_file_pattern(const char* pattern, char* out, std::size_t size);

// Whether a launcher has given this process a rank, as %r finds it.
bool mora_environment_shows_rank();

}  // namespace ceilmeter
