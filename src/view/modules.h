// Names for blocks, from the module files: the function that a block belongs to, and the mnemonics of its instructions.
//
// A file at a module's path need not be the one that ran. So the operations of every block are counted again from the
// file's words; a module of which one block has other operations than the result file says is shown without names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "view/elf_symbols.h"
#include "view/model.h"

namespace ceilmeter::view {

struct block_description {
  std::string function;                // Demangled, valid UTF-8; empty if the file does not tell.
  std::uint64_t offset = 0;            // Of the block's start in the function.
  std::vector<const char*> mnemonics;  // Of the block's instructions, in order; empty if they are not known.
};

// What an instruction sequence is worth, counted as the tracer counts it.
std::int64_t count_operations(const std::vector<std::uint32_t>& words);

// "/home/user/app" gives "app". Of several modules with one last part, as many more parts as tell them apart.
std::vector<std::string> shortened_paths(const std::vector<std::string>& modules);

// The modules of one result file. Keeps the files open while it lives.
class module_names {
 public:
  // `folder`: where the modules are looked for, by their path below it and then by their last part alone. Empty: at
  // their paths. Reads the tables of all modules that have blocks and counts the operations of all blocks again.
  module_names(const result_file& file, const std::string& folder);
  module_names(const module_names&) = delete;
  module_names& operator=(const module_names&) = delete;
  ~module_names();

  // One sentence for each module that is not at hand, is no AArch64 ELF file, or is not the file that ran.
  const std::vector<std::string>& warnings() const { return complaints; }

  // Without names, mnemonics or both where they are not known.
  block_description describe(const block& one) const;

 private:
  struct module_file {
    int descriptor = -1;  // -1: no names.
    std::vector<elf_function> functions;
  };

  void open_module(const std::string& path, const std::string& folder, module_file& module);
  void check_blocks(const result_file& file);

  std::vector<module_file> modules;  // By block::module.
  std::vector<std::string> complaints;
};

}  // namespace ceilmeter::view
