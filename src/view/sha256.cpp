// SHA-256 over one whole buffer, in 64-byte blocks; base64 beside it.
#include "view/sha256.h"

#include <bit>
#include <cstddef>

namespace ceilmeter::view {
namespace {

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<std::uint32_t, 64> round_constants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

using state_t = std::array<std::uint32_t, 8>;

std::array<std::uint32_t, 64> schedule(const std::uint8_t* block) {
  std::array<std::uint32_t, 64> words{};
  for (std::size_t i = 0; i < 16; i++) {
    for (std::size_t byte = 0; byte < 4; byte++) {
      words[i] = words[i] << 8 | block[4 * i + byte];
    }
  }
  for (std::size_t i = 16; i < 64; i++) {
    const std::uint32_t a = words[i - 15];
    const std::uint32_t b = words[i - 2];
    const std::uint32_t s0 = std::rotr(a, 7) ^ std::rotr(a, 18) ^ a >> 3;
    const std::uint32_t s1 = std::rotr(b, 17) ^ std::rotr(b, 19) ^ b >> 10;
    words[i] = words[i - 16] + s0 + words[i - 7] + s1;
  }
  return words;
}

void add_block(state_t& state, const std::uint8_t* block) {
  const std::array<std::uint32_t, 64> words = schedule(block);
  auto [a, b, c, d, e, f, g, h] = state;
  for (std::size_t i = 0; i < 64; i++) {
    const std::uint32_t s1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
    const std::uint32_t first = h + s1 + ((e & f) ^ (~e & g)) + round_constants[i] + words[i];
    const std::uint32_t s0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
    const std::uint32_t second = s0 + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + first;
    d = c;
    c = b;
    b = a;
    a = first + second;
  }
  const state_t added = {a, b, c, d, e, f, g, h};
  for (std::size_t i = 0; i < state.size(); i++) {
    state[i] += added[i];
  }
}

}  // namespace

std::array<std::uint8_t, 32> sha256(std::string_view bytes) {
  // The message, a 1 bit, zeros up to a whole block, the length in bits.
  std::string padded(bytes);
  padded.push_back('\x80');
  padded.resize((padded.size() + 8 + 63) / 64 * 64 - 8, '\0');
  const std::uint64_t bits = static_cast<std::uint64_t>(bytes.size()) * 8;
  for (int shift = 56; shift >= 0; shift -= 8) {
    padded.push_back(static_cast<char>(bits >> shift & 0xff));
  }
  state_t state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  for (std::size_t at = 0; at < padded.size(); at += 64) {
    add_block(state, reinterpret_cast<const std::uint8_t*>(padded.data()) + at);
  }
  std::array<std::uint8_t, 32> digest{};
  for (std::size_t i = 0; i < digest.size(); i++) {
    digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
  }
  return digest;
}

std::string base64(std::string_view bytes) {
  constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; i++) {
      group = group << 8 | (at + i < bytes.size() ? static_cast<std::uint8_t>(bytes[at + i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; i++) {
      const bool padding = i > bytes.size() - at;
      text.push_back(padding ? '=' : digits[group >> (18 - 6 * i) & 63]);
    }
  }
  return text;
}

std::string policy_hash(std::string_view bytes) {
  const std::array<std::uint8_t, 32> digest = sha256(bytes);
  return "'sha256-" + base64(std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size())) + "'";
}

}  // namespace ceilmeter::view
