// Asks the kernel whether memory of the application's is there. An address that the kernel cannot use is the
// application's mistake, and the application has to hear of it as it would natively.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Whether the kernel can read, or write, the eight bytes at the address.
bool is_readable(std::uint64_t address);
bool is_writable(std::uint64_t address);

// Reads the eight bytes at the address. False if they cannot be read.
bool read_word(std::uint64_t address, std::uint64_t* word);

}  // namespace ceilmeter
