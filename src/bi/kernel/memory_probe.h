// Memory of the application's that may not be there. The kernel is asked: an address that it cannot use is the
// application's mistake, and the application has to be told of it as it would be natively.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Whether the kernel can read, or write, the eight bytes at the address.
bool is_readable(std::uint64_t address);
bool is_writable(std::uint64_t address);

// Reads the eight bytes at the address. False if they cannot be read.
bool read_word(std::uint64_t address, std::uint64_t* word);

}  // namespace ceilmeter
