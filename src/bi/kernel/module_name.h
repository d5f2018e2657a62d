// Which mapped file an address lies in, for messages that end the process. Nothing is allocated or locked: it may be
// called in a signal handler.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// Writes "FILE+0xOFFSET" of the mapping of the process that holds the address into `name`, where OFFSET counts from the
// file's start; without a file "[anonymous]+0xOFFSET", counted from the mapping's start; "nowhere" if there is no
// mapping, or if they cannot be read. The name is cut to `size` bytes, its end included, of which there are at least 8.
void name_module(std::uint64_t address, char* name, std::size_t size);

}  // namespace ceilmeter
