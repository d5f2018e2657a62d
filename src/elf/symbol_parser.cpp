// Every symbol of every executable mapping goes through here, on the application's thread. So a symbol costs two tests
// of its name and no copy, and nothing is kept between mappings.
#include "elf/symbol_parser.h"

#include <gelf.h>

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

bool is_of_interest(const char* name) {
  // A versioned name stands for a function that is also there under its plain name.
  return name != nullptr && std::strchr(name, '@') == nullptr &&
         std::strncmp(name, EXCLUDED_PREFIX, sizeof EXCLUDED_PREFIX - 1) != 0;
}

void parse_section(Elf* elf, Elf_Scn* section, std::uint64_t bias, mora_context* ctx) {
  GElf_Shdr header;
  if (gelf_getshdr(section, &header) == nullptr) return;
  if (header.sh_type != SHT_SYMTAB && header.sh_type != SHT_DYNSYM) return;
  Elf_Data* data = elf_getdata(section, nullptr);
  const std::uint64_t count = header.sh_entsize != 0 ? header.sh_size / header.sh_entsize : 0;
  GElf_Sym symbol;
  // If the entry size is not that of a symbol, `count` promises more symbols than there are. The library stops at the
  // data's end.
  for (std::uint64_t index = 0; index < count; ++index) {
    if (gelf_getsym(data, static_cast<int>(index), &symbol) == nullptr) break;
    if (symbol.st_value == 0 || GELF_ST_TYPE(symbol.st_info) != STT_FUNC) continue;
    const char* name = elf_strptr(elf, header.sh_link, symbol.st_name);
    if (!is_of_interest(name)) continue;
    ctx->name = name;
    ctx->address = bias + symbol.st_value;
    ctx->size = symbol.st_size;
    if (function_watch_manual == 0) function_watch_add_named(ctx->address, name);
    mora_deliver_event(ctx);
  }
}

}  // namespace

std::uint32_t function_watch_set_manual(std::uint32_t flag) {
  const std::uint32_t before = function_watch_manual;
  function_watch_manual = flag;
  return before;
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
