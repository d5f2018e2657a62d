// An instruction word as messages show it.
#pragma once

#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>

namespace ceilmeter::test {

inline std::string hex(std::uint32_t word) {
  std::ostringstream text;
  text << "0x" << std::hex << std::setw(8) << std::setfill('0') << word;
  return text.str();
}

}  // namespace ceilmeter::test
