// The checksum against the standard's own examples, and at every padding.
#include "view/sha256.h"

#include <gtest/gtest.h>

namespace {

std::string hex(const std::string& bytes) {
  std::string text;
  for (const std::uint8_t byte : ceilmeter::view::sha256(bytes)) {
    text.push_back("0123456789abcdef"[byte >> 4]);
    text.push_back("0123456789abcdef"[byte & 15]);
  }
  return text;
}

TEST(sha256, gives_the_digests_of_the_standards_examples) {
  EXPECT_EQ(hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(hex(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(sha256, pads_lengths_around_a_block_rightly) {
  EXPECT_EQ(hex(std::string(55, 'x')), "d5e285683cd4efc02d021a5c62014694958901005d6f71e89e0989fac77e4072");
  EXPECT_EQ(hex(std::string(56, 'x')), "04c26261370ee7541549d16dee320c723e3fd14671e66a099afe0a377c16888e");
  EXPECT_EQ(hex(std::string(63, 'x')), "75220b47218278e656f2013bb8f0c455a25eaf01e86c64924e9d48d89776d6f2");
  EXPECT_EQ(hex(std::string(64, 'x')), "7ce100971f64e7001e8fe5a51973ecdfe1ced42befe7ee8d5fd6219506b5393c");
  EXPECT_EQ(hex(std::string(119, 'x')), "000b48d4edf0fa7bee3c6236ecd2785baa5db4eeb8bb54341b029e0d9fa5fb0c");
  EXPECT_EQ(hex(std::string(120, 'x')), "13f05a0b594787f5ecd315edc96141bd3243203d1b7d4f0836f37308b276ba98");
}

TEST(sha256, base64_pads_to_groups_of_four) {
  EXPECT_EQ(ceilmeter::view::base64(""), "");
  EXPECT_EQ(ceilmeter::view::base64("f"), "Zg==");
  EXPECT_EQ(ceilmeter::view::base64("fo"), "Zm8=");
  EXPECT_EQ(ceilmeter::view::base64("foo"), "Zm9v");
  EXPECT_EQ(ceilmeter::view::base64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(ceilmeter::view::base64("\xff\xfe\xfd"), "//79");
}

TEST(sha256, a_policy_names_the_digest_in_base64) {
  EXPECT_EQ(ceilmeter::view::policy_hash("abc"), "'sha256-ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0='");
}

}  // namespace
