// Calls machine code with every register set by the test, and shows every register as it came back. Written for code
// that does not follow the calling convention.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// The offsets are known to register_probe.S.
struct register_file {
  std::uint64_t x[31];     // x16 and x30 are set by the call itself.
  std::uint64_t sp_moved;  // How far the stack pointer had moved when the code came back.
  std::uint64_t v[32][2];
};
static_assert(offsetof(register_file, sp_moved) == 248 && offsetof(register_file, v) == 256);

// Loads all registers from `file`, calls `entry`, stores all registers to `file`.
extern "C" void probe_registers(const void* entry, register_file* file);

// A register file in which no two words are equal.
inline register_file marked_registers() {
  register_file file{};
  for (int n = 0; n < 31; ++n) file.x[n] = 0x1111'0000'0000'0000u + static_cast<unsigned>(n);
  for (int n = 0; n < 32; ++n) {
    for (int half = 0; half < 2; ++half) file.v[n][half] = 0x2222'0000'0000'0000u + static_cast<unsigned>(2 * n + half);
  }
  return file;
}

template <typename Lane>
Lane get_lane(const register_file& file, int v, int lane) {
  Lane value;
  std::memcpy(&value, reinterpret_cast<const char*>(file.v[v]) + lane * sizeof(Lane), sizeof(Lane));
  return value;
}

template <typename Lane>
void set_lane(register_file& file, int v, int lane, Lane value) {
  std::memcpy(reinterpret_cast<char*>(file.v[v]) + lane * sizeof(Lane), &value, sizeof(Lane));
}
