// A block's words are read from the file when they are asked for: a page shows some thousand of the blocks of a file
// that may have hundreds of thousands.
#include "view/modules.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "a64/classifier.h"
#include "a64/instr_flop.h"
#include "view/text.h"

namespace ceilmeter::view {

namespace {

constexpr std::uint64_t instruction_size = 4;
// Longer than any block of a real program; a made-up end must not make a gigabyte of it.
constexpr std::uint64_t max_block_size = 1 << 20;
// Longer names are shown as they are: a demangled name can be exponentially longer.
constexpr std::size_t max_demangled_input = 1024;

std::string_view last_part(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// The words of a block, or none if the file does not have all of them.
std::optional<std::vector<std::uint32_t>> read_words(int descriptor, std::uint64_t begin, std::uint64_t end) {
  if (end < begin || end - begin > max_block_size || begin > INT64_MAX - max_block_size) return std::nullopt;
  std::vector<unsigned char> bytes((end - begin) / instruction_size * instruction_size);
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t got =
        pread(descriptor, bytes.data() + filled, bytes.size() - filled, static_cast<off_t>(begin + filled));
    if (got <= 0) return std::nullopt;
    filled += static_cast<std::size_t>(got);
  }
  std::vector<std::uint32_t> words(bytes.size() / instruction_size);
  for (std::size_t at = 0; at < words.size(); ++at) {
    const unsigned char* from = bytes.data() + at * instruction_size;
    // Instructions are little-endian whatever this machine is.
    words[at] = static_cast<std::uint32_t>(from[0]) | static_cast<std::uint32_t>(from[1]) << 8 |
                static_cast<std::uint32_t>(from[2]) << 16 | static_cast<std::uint32_t>(from[3]) << 24;
  }
  return words;
}

std::string demangled(const std::string& name) {
  if (!name.starts_with("_Z") || name.size() > max_demangled_input) return clean_utf8(name);
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                    std::free);
  return clean_utf8(status == 0 && text != nullptr ? text.get() : name.c_str());
}

// A FIFO or a device under a module's name must neither block nor be read.
int open_regular(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) return -1;
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) return descriptor;
  close(descriptor);
  errno = ENOENT;
  return -1;
}

}  // namespace

std::int64_t count_operations(const std::vector<std::uint32_t>& words) {
  // One record for all words: scalable instructions leave its multiplier as the instruction before them had it.
  instr_flop work{};
  work.multiplier = 1;
  std::int64_t operations = 0;
  for (const std::uint32_t word : words) {
    if (get_instr_flop(word, work) == 0) operations += static_cast<std::int64_t>(work.count * work.multiplier);
  }
  return operations;
}

std::vector<std::string> shortened_paths(const std::vector<std::string>& modules) {
  // Where the shown part of each path begins.
  std::vector<std::size_t> begins(modules.size());
  for (std::size_t at = 0; at < modules.size(); ++at) begins[at] = modules[at].size() - last_part(modules[at]).size();
  const auto shown = [&](std::size_t at) { return std::string_view(modules[at]).substr(begins[at]); };
  for (bool changed = true; changed;) {
    changed = false;
    std::vector<std::size_t> order(modules.size());
    for (std::size_t at = 0; at < order.size(); ++at) order[at] = at;
    const auto in_order = [&](std::size_t left, std::size_t right) { return shown(left) < shown(right); };
    std::sort(order.begin(), order.end(), in_order);
    std::vector<bool> clash(modules.size(), false);
    for (std::size_t at = 1; at < order.size(); ++at) {
      const bool same = shown(order[at - 1]) == shown(order[at]) && modules[order[at - 1]] != modules[order[at]];
      if (same) clash[order[at - 1]] = clash[order[at]] = true;
    }
    for (std::size_t at = 0; at < modules.size(); ++at) {
      if (!clash[at] || begins[at] == 0) continue;
      const std::size_t slash = begins[at] < 2 ? std::string::npos : modules[at].rfind('/', begins[at] - 2);
      begins[at] = slash == std::string::npos ? 0 : slash + 1;
      changed = true;
    }
  }
  std::vector<std::string> result;
  for (std::size_t at = 0; at < modules.size(); ++at) result.emplace_back(shown(at));
  return result;
}

module_names::module_names(const result_file& file, const std::string& folder) : modules(file.modules.size()) {
  std::vector<bool> used(modules.size(), false);
  for (const region& one : file.regions) {
    for (const block& code : one.blocks) {
      if (code.module < used.size()) used[code.module] = true;
    }
  }
  for (std::size_t at = 0; at < modules.size(); ++at) {
    if (used[at]) open_module(file.modules[at], folder, modules[at]);
  }
  check_blocks(file);
}

module_names::~module_names() {
  for (const module_file& one : modules) {
    if (one.descriptor >= 0) close(one.descriptor);
  }
}

void module_names::open_module(const std::string& path, const std::string& folder, module_file& module) {
  if (folder.empty()) {
    module.descriptor = open_regular(path);
  } else {
    module.descriptor = open_regular(folder + "/" + path);
    if (module.descriptor < 0) module.descriptor = open_regular(folder + "/" + std::string(last_part(path)));
  }
  if (module.descriptor < 0) {
    complaints.push_back(path + ": its blocks have no names: " + std::strerror(errno));
    return;
  }
  elf_functions read = read_elf_functions(module.descriptor);
  if (read.error.empty()) {
    module.functions = std::move(read.functions);
    return;
  }
  close(module.descriptor);
  module.descriptor = -1;
  complaints.push_back(path + ": its blocks have no names: " + read.error);
}

void module_names::check_blocks(const result_file& file) {
  struct tally {
    std::size_t blocks = 0;
    std::size_t different = 0;
  };
  std::vector<tally> tallies(modules.size());
  for (const region& one : file.regions) {
    for (const block& code : one.blocks) {
      if (code.module >= modules.size() || modules[code.module].descriptor < 0) continue;
      const auto words = read_words(modules[code.module].descriptor, code.dump_start, code.dump_end);
      ++tallies[code.module].blocks;
      if (!words || count_operations(*words) != code.flop) ++tallies[code.module].different;
    }
  }
  for (std::size_t at = 0; at < modules.size(); ++at) {
    if (tallies[at].different == 0) continue;
    close(modules[at].descriptor);
    modules[at] = {};
    complaints.push_back(file.modules[at] + ": its blocks have no names: it is not the file that ran, " +
                         number(static_cast<std::int64_t>(tallies[at].different)) + " of " +
                         counted(tallies[at].blocks, "block") + " have other operations in it");
  }
}

block_description module_names::describe(const block& one) const {
  block_description description;
  if (one.module >= modules.size() || modules[one.module].descriptor < 0) return description;
  const module_file& module = modules[one.module];
  if (const elf_function* function = find_function(module.functions, one.dump_start)) {
    description.function = demangled(function->name);
    description.offset = one.dump_start - function->offset;
  }
  const auto words = read_words(module.descriptor, one.dump_start, one.dump_end);
  if (!words) return description;
  for (const std::uint32_t word : *words) description.mnemonics.push_back(instruction_mnemonic(word));
  return description;
}

}  // namespace ceilmeter::view
