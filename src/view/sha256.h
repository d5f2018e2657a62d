// SHA-256 (FIPS 180-4). The page's policy names its script and its style by this checksum.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace ceilmeter::view {

std::array<std::uint8_t, 32> sha256(std::string_view bytes);

// With padding, as a Content-Security-Policy writes a checksum.
std::string base64(std::string_view bytes);

// "'sha256-...'", the source expression of an inline script or style of exactly these bytes.
std::string policy_hash(std::string_view bytes);

}  // namespace ceilmeter::view
