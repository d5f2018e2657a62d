// LLVM's disassembler of A64 words. It shares no table with what is compared with it.
#pragma once

#include <llvm-c/Disassembler.h>
#include <llvm-c/Target.h>

#include <array>
#include <cstdint>
#include <string>

namespace ceilmeter::test {

class llvm_disassembler {
 public:
  // `features` as LLVM takes them, such as "+v9.3a,+sve2".
  explicit llvm_disassembler(const char* features) {
    LLVMInitializeAArch64TargetInfo();
    LLVMInitializeAArch64TargetMC();
    LLVMInitializeAArch64Disassembler();
    m_context = LLVMCreateDisasmCPUFeatures("aarch64-linux-gnu", "", features, nullptr, 0, nullptr, nullptr);
  }
  ~llvm_disassembler() { LLVMDisasmDispose(m_context); }
  llvm_disassembler(const llvm_disassembler&) = delete;
  llvm_disassembler& operator=(const llvm_disassembler&) = delete;

  bool works() const { return m_context != nullptr; }

  // "mnemonic<tab>operands", or nothing for a word that is no instruction.
  std::string text_of(std::uint32_t word) const {
    std::array<std::uint8_t, 4> bytes = {static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8),
                                         static_cast<std::uint8_t>(word >> 16), static_cast<std::uint8_t>(word >> 24)};
    std::array<char, 256> text = {};
    const std::size_t size = LLVMDisasmInstruction(m_context, bytes.data(), bytes.size(), 0, text.data(), text.size());
    return size == 0 ? "" : text.data() + (text[0] == '\t' ? 1 : 0);
  }

 private:
  LLVMDisasmContextRef m_context;
};

}  // namespace ceilmeter::test
