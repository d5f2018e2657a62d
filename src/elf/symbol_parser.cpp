// Every symbol of every executable mapping goes through here, on the application's thread. So the tables are walked as
// they lie in memory, a symbol that nobody wants to hear of costs a few instructions, and nothing is kept between
// mappings.
#include "elf/symbol_parser.h"

#include <gelf.h>

#include <array>
#include <algorithm>
#include <cstring>

#include "bi/plugins/plugin_delivery.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/elf/symbol_parser"};

// Functions of an MPI library whose names begin like this cannot be watched. Nobody is told of them.
constexpr char EXCLUDED_PREFIX[] = "ompi_osc_base_find_available";

// 0: every function that is found is watched. Written before the application starts.
std::uint32_t function_watch_manual = 0;

// The names of which plug-ins want to hear; none: of all. Written before the application starts.
struct wanted_names {
  static constexpr std::size_t most = 8;
  std::array<std::array<char, 64>, most> names{};
  std::size_t count = 0;
  std::uint64_t letters = 0;  // Bit n: a name begins with a letter of n modulo 64.
  bool is_full = false;       // A name did not fit.
};
wanted_names wanted;

std::uint64_t letter_bit(const char* name) { return std::uint64_t{1} << (name[0] & 63); }

bool are_all_wanted() { return wanted.count == 0 || wanted.is_full; }

bool is_wanted(const char* name) {
  if (are_all_wanted()) return true;
  if ((wanted.letters & letter_bit(name)) == 0) return false;
  for (std::size_t index = 0; index < wanted.count; ++index) {
    if (std::strcmp(wanted.names[index].data(), name) == 0) return true;
  }
  return false;
}

bool is_of_interest(const char* name) {
  // A versioned name stands for a function that is also there under its plain name.
  return std::strchr(name, '@') == nullptr && std::strncmp(name, EXCLUDED_PREFIX, sizeof EXCLUDED_PREFIX - 1) != 0;
}

// The bytes of a string table, without what stands behind its last string. Empty if the section is none.
struct string_table {
  const char* text = nullptr;
  std::size_t size = 0;
};

string_table strings_of(Elf_Scn* section) {
  GElf_Shdr header;
  if (section == nullptr || gelf_getshdr(section, &header) == nullptr || header.sh_type != SHT_STRTAB) return {};
  const Elf_Data* data = elf_getdata(section, nullptr);
  if (data == nullptr || data->d_buf == nullptr) return {};
  string_table strings{static_cast<const char*>(data->d_buf), data->d_size};
  while (strings.size != 0 && strings.text[strings.size - 1] != '\0') --strings.size;
  return strings;
}

void tell_of_symbol(const Elf64_Sym& symbol, const char* name, std::uint64_t bias, mora_context* ctx) {
  if (!is_of_interest(name)) return;
  ctx->name = name;
  ctx->address = bias + symbol.st_value;
  ctx->size = symbol.st_size;
  if (function_watch_manual == 0) function_watch_add_named(ctx->address, name);
  if (is_wanted(name)) mora_deliver_event(ctx);
}

void parse_section(Elf* elf, Elf_Scn* section, std::uint64_t bias, mora_context* ctx) {
  GElf_Shdr header;
  if (gelf_getshdr(section, &header) == nullptr) return;
  if (header.sh_type != SHT_SYMTAB && header.sh_type != SHT_DYNSYM) return;
  // Symbols of 64-bit files, in this machine's order of bytes.
  const Elf_Data* data = elf_getdata(section, nullptr);
  if (data == nullptr || data->d_buf == nullptr || header.sh_entsize == 0) return;
  const string_table strings = strings_of(elf_getscn(elf, header.sh_link));
  const auto* symbols = static_cast<const Elf64_Sym*>(data->d_buf);
  // If the entry size is not that of a symbol, it promises more symbols than there are.
  const std::uint64_t count = std::min(header.sh_size / header.sh_entsize, data->d_size / sizeof *symbols);
  const bool tells_all = function_watch_manual == 0 || are_all_wanted();
  for (std::uint64_t index = 0; index < count; ++index) {
    const Elf64_Sym& symbol = symbols[index];
    if (symbol.st_value == 0 || ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_name >= strings.size) continue;
    const char* name = strings.text + symbol.st_name;
    if (tells_all || (wanted.letters & letter_bit(name)) != 0) tell_of_symbol(symbol, name, bias, ctx);
  }
}

}  // namespace

std::uint32_t function_watch_set_manual(std::uint32_t flag) {
  const std::uint32_t before = function_watch_manual;
  function_watch_manual = flag;
  return before;
}

void function_symbol_only(const char* name) {
  if (name == nullptr) {
    wanted = {};
    return;
  }
  if (wanted.count == wanted_names::most || std::strlen(name) >= wanted.names[0].size()) {
    wanted.is_full = true;
    return;
  }
  std::strcpy(wanted.names[wanted.count++].data(), name);
  wanted.letters |= letter_bit(name);
}

int function_watch_parse_elf(Elf* elf, std::uint64_t base) {
  const Elf64_Ehdr* header = elf64_getehdr(elf);
  if (header == nullptr) {
    // Programs map files of every kind as code. Only an ELF file that cannot be read is worth a warning.
    const int level = elf_kind(elf) == ELF_K_ELF ? LEVEL_WARN : LEVEL_DEBUG;
    log(level, "error reading the ELF executable header: %s", elf_errmsg(-1));
    return -1;
  }
  const std::uint64_t bias = header->e_type == ET_EXEC ? 0 : base;
  mora_context ctx{};
  ctx.thread_data = current_thread;
  ctx.event = MORA_FUNCTION_SYMBOL;
  for (Elf_Scn* section = elf_nextscn(elf, nullptr); section != nullptr; section = elf_nextscn(elf, section)) {
    parse_section(elf, section, bias, &ctx);
  }
  return 0;
}

}  // namespace ceilmeter
