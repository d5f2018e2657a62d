// The functions of files that the tests build, as plug-ins are told of them.
#include "elf/symbol_parser.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "../../support/captured_log.h"
#include "common/log.h"
#include "bi/kernel/syscalls.h"
#include "plugin_fixture.h"

namespace ceilmeter {
namespace {

using test::captured_log;
using test::plugin_test;

struct test_symbol {
  std::string name;
  unsigned char type;
  std::uint64_t value;
  std::uint64_t size;
};

struct told_symbol {
  std::string name;
  std::uint64_t address;
  std::uint64_t size;
  bool operator==(const told_symbol&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const told_symbol& symbol) {
  return stream << "{" << symbol.name << " at 0x" << std::hex << symbol.address << std::dec << ", " << symbol.size
                << "}";
}

std::vector<told_symbol> told;

constexpr std::uint64_t BASE = 0x5500000000;

class symbol_parser_test : public plugin_test {
 protected:
  symbol_parser_test() {
    elf_version(EV_CURRENT);
    told.clear();
    log_state::engine_log_level = LEVEL_WARN;
    function_watch_set_manual(1);
    mora_on_function_symbol(mora_add_plugin(), [](mora_context* ctx) {
      told.push_back({mora_get_symbol_name(ctx), mora_get_symbol_address(ctx), mora_get_symbol_size(ctx)});
      return 0;
    });
  }
  ~symbol_parser_test() override {
    function_watch_set_manual(0);
    function_symbol_only(nullptr);
    if (fd >= 0) close(fd);
  }

  // A file with one table of each type, all with the same symbols.
  void make(std::uint16_t type, const std::vector<std::uint32_t>& tables, const std::vector<test_symbol>& symbols,
            std::uint64_t entry_size = sizeof(Elf64_Sym)) {
    std::string names(1, '\0');
    std::string entries(sizeof(Elf64_Sym), '\0');
    for (const test_symbol& symbol : symbols) {
      Elf64_Sym entry{};
      entry.st_name = static_cast<Elf64_Word>(names.size());
      entry.st_info = static_cast<unsigned char>(ELF64_ST_INFO(STB_GLOBAL, symbol.type));
      entry.st_value = symbol.value;
      entry.st_size = symbol.size;
      entries.append(reinterpret_cast<const char*>(&entry), sizeof entry);
      names += symbol.name + '\0';
    }
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = type;
    header.e_machine = EM_AARCH64;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof(Elf64_Ehdr);
    header.e_shentsize = sizeof(Elf64_Shdr);
    std::string file(sizeof header, '\0');
    std::vector<Elf64_Shdr> sections(2);
    const auto add_data = [&file](Elf64_Shdr& section, const std::string& data) {
      file.resize((file.size() + 7) / 8 * 8);
      section.sh_offset = file.size();
      section.sh_size = data.size();
      file += data;
    };
    sections[1].sh_type = SHT_STRTAB;
    add_data(sections[1], names);
    for (const std::uint32_t table : tables) {
      Elf64_Shdr section{};
      section.sh_type = table;
      section.sh_link = 1;
      section.sh_entsize = entry_size;
      section.sh_addralign = 8;
      add_data(section, entries);
      sections.push_back(section);
    }
    file.resize((file.size() + 7) / 8 * 8);
    header.e_shoff = file.size();
    header.e_shnum = static_cast<Elf64_Half>(sections.size());
    header.e_shstrndx = 1;
    std::memcpy(file.data(), &header, sizeof header);
    file.append(reinterpret_cast<const char*>(sections.data()), sections.size() * sizeof(Elf64_Shdr));
    write_file(file);
  }

  void write_file(const std::string& content) {
    fd = memfd_create("symbols", MFD_CLOEXEC);
    if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
      throw std::runtime_error("cannot write the file");
    }
  }

  int parse() {
    Elf* elf = elf_begin(fd, ELF_C_READ, nullptr);
    const int result = function_watch_parse_elf(elf, BASE);
    elf_end(elf);
    return result;
  }

  int fd = -1;
};

using told_symbols = std::vector<told_symbol>;

TEST_F(symbol_parser_test, a_file_without_symbol_sections_tells_nothing) {
  make(ET_DYN, {}, {});
  EXPECT_EQ(parse(), 0);
  EXPECT_EQ(told, told_symbols{});
}

TEST_F(symbol_parser_test, functions_of_shared_objects_are_told_from_the_mappings_address_on) {
  make(ET_DYN, {SHT_DYNSYM}, {{"first", STT_FUNC, 0x1000, 24}, {"second", STT_FUNC, 0x2000, 0}});
  EXPECT_EQ(parse(), 0);
  EXPECT_EQ(told, (told_symbols{{"first", BASE + 0x1000, 24}, {"second", BASE + 0x2000, 0}}));
}

TEST_F(symbol_parser_test, functions_of_fixed_executables_are_told_as_they_stand) {
  make(ET_EXEC, {SHT_SYMTAB}, {{"fixed", STT_FUNC, 0x400100, 8}});
  EXPECT_EQ(parse(), 0);
  EXPECT_EQ(told, (told_symbols{{"fixed", 0x400100, 8}}));
}

TEST_F(symbol_parser_test, a_function_in_both_tables_is_told_twice) {
  make(ET_DYN, {SHT_DYNSYM, SHT_SYMTAB}, {{"both", STT_FUNC, 0x1000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"both", BASE + 0x1000, 8}, {"both", BASE + 0x1000, 8}}));
}

TEST_F(symbol_parser_test, undefined_symbols_are_skipped) {
  make(ET_DYN, {SHT_DYNSYM}, {{"undefined", STT_FUNC, 0, 0}, {"defined", STT_FUNC, 0x1000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"defined", BASE + 0x1000, 8}}));
}

TEST_F(symbol_parser_test, indirect_functions_and_objects_are_skipped) {
  make(ET_DYN, {SHT_DYNSYM},
       {{"indirect", STT_GNU_IFUNC, 0x1000, 8}, {"object", STT_OBJECT, 0x2000, 8}, {"untyped", STT_NOTYPE, 0x3000, 8}});
  parse();
  EXPECT_EQ(told, told_symbols{});
}

TEST_F(symbol_parser_test, names_with_a_version_are_skipped) {
  make(ET_DYN, {SHT_DYNSYM},
       {{"start_perf_roofline_events@@V1", STT_FUNC, 0x1000, 8},
        {"f@V1", STT_FUNC, 0x1000, 8},
        {"@", STT_FUNC, 0x1000, 8}});
  parse();
  EXPECT_EQ(told, told_symbols{});
}

TEST_F(symbol_parser_test, names_that_begin_with_the_excluded_one_are_skipped) {
  make(ET_DYN, {SHT_DYNSYM},
       {{"ompi_osc_base_find_available", STT_FUNC, 0x1000, 8},
        {"ompi_osc_base_find_available_2", STT_FUNC, 0x2000, 8},
        {"ompi_osc_base_find_availabl", STT_FUNC, 0x3000, 8},
        {"x_ompi_osc_base_find_available", STT_FUNC, 0x4000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"ompi_osc_base_find_availabl", BASE + 0x3000, 8},
                                {"x_ompi_osc_base_find_available", BASE + 0x4000, 8}}));
}

TEST_F(symbol_parser_test, an_excluded_name_is_not_watched_either) {
  function_watch_set_manual(0);
  make(ET_DYN, {SHT_DYNSYM}, {{"ompi_osc_base_find_available", STT_FUNC, 0x1000, 8}, {"other", STT_FUNC, 0x2000, 8}});
  parse();
  EXPECT_EQ(engine.function_watches.count, 1u);
}

TEST_F(symbol_parser_test, unless_plugins_choose_every_function_is_watched_by_its_name) {
  EXPECT_EQ(function_watch_set_manual(0), 1u);
  make(ET_DYN, {SHT_DYNSYM, SHT_SYMTAB}, {{"named", STT_FUNC, 0x1000, 8}});
  parse();
  const auto* watch = static_cast<const function_watch*>(robin_map_lookup(&engine.function_watches, BASE + 0x1000));
  ASSERT_NE(watch, nullptr);
  EXPECT_STREQ(watch->name, "named");
  EXPECT_EQ(watch->refcount, 2u);
  EXPECT_EQ(function_watch_set_manual(1), 0u);
}

TEST_F(symbol_parser_test, where_plugins_choose_nothing_is_watched) {
  make(ET_DYN, {SHT_DYNSYM}, {{"chosen_by_nobody", STT_FUNC, 0x1000, 8}});
  parse();
  EXPECT_EQ(told.size(), 1u);
  EXPECT_EQ(engine.function_watches.count, 0u);
}

TEST_F(symbol_parser_test, of_named_functions_alone_is_told_where_names_were_given) {
  function_symbol_only("wanted");
  function_symbol_only("other");
  make(ET_DYN, {SHT_DYNSYM},
       {{"wanted", STT_FUNC, 0x1000, 8},
        {"wante", STT_FUNC, 0x2000, 8},     // The same letter.
        {"wanted_2", STT_FUNC, 0x3000, 8},  // Longer.
        {"7anted", STT_FUNC, 0x4000, 8},    // A letter that is the same modulo 64.
        {"unwanted", STT_FUNC, 0x5000, 8},
        {"", STT_FUNC, 0x6000, 8},
        {"other", STT_FUNC, 0x7000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"wanted", BASE + 0x1000, 8}, {"other", BASE + 0x7000, 8}}));
  EXPECT_EQ(engine.function_watches.count, 0u);
}

TEST_F(symbol_parser_test, names_do_not_narrow_what_is_watched) {
  function_watch_set_manual(0);
  function_symbol_only("wanted");
  make(ET_DYN, {SHT_DYNSYM}, {{"wanted", STT_FUNC, 0x1000, 8}, {"other", STT_FUNC, 0x2000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"wanted", BASE + 0x1000, 8}}));
  EXPECT_EQ(engine.function_watches.count, 2u);
}

TEST_F(symbol_parser_test, with_the_names_forgotten_every_function_is_told) {
  function_symbol_only("wanted");
  function_symbol_only(nullptr);
  make(ET_DYN, {SHT_DYNSYM}, {{"other", STT_FUNC, 0x2000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"other", BASE + 0x2000, 8}}));
}

TEST_F(symbol_parser_test, a_name_of_63_bytes_fits_and_with_a_longer_one_every_function_is_told) {
  const std::string longest(63, 'x');
  make(ET_DYN, {SHT_DYNSYM}, {{longest, STT_FUNC, 0x1000, 8}, {"other", STT_FUNC, 0x2000, 8}});
  function_symbol_only(longest.c_str());
  parse();
  EXPECT_EQ(told, (told_symbols{{longest, BASE + 0x1000, 8}}));
  told.clear();
  function_symbol_only((longest + 'x').c_str());
  parse();
  EXPECT_EQ(told, (told_symbols{{longest, BASE + 0x1000, 8}, {"other", BASE + 0x2000, 8}}));
}

TEST_F(symbol_parser_test, eight_names_fit_and_with_a_ninth_every_function_is_told) {
  for (int number = 0; number < 8; ++number) function_symbol_only(("wanted_" + std::to_string(number)).c_str());
  make(ET_DYN, {SHT_DYNSYM}, {{"wanted_7", STT_FUNC, 0x1000, 8}, {"other", STT_FUNC, 0x2000, 8}});
  parse();
  EXPECT_EQ(told, (told_symbols{{"wanted_7", BASE + 0x1000, 8}}));
  told.clear();
  function_symbol_only("wanted_8");
  parse();
  EXPECT_EQ(told, (told_symbols{{"wanted_7", BASE + 0x1000, 8}, {"other", BASE + 0x2000, 8}}));
}

TEST_F(symbol_parser_test, a_name_that_does_not_end_in_its_table_is_no_function) {
  make(ET_DYN, {SHT_DYNSYM}, {{"good", STT_FUNC, 0x1000, 8}, {"open", STT_FUNC, 0x2000, 8}});
  // The byte behind the last name, which lies behind an empty one and "good".
  ASSERT_EQ(pwrite(fd, "x", 1, sizeof(Elf64_Ehdr) + 1 + 5 + 4), 1);
  EXPECT_EQ(parse(), 0);
  EXPECT_EQ(told, (told_symbols{{"good", BASE + 0x1000, 8}}));
}

TEST_F(symbol_parser_test, entries_without_a_size_are_no_symbols) {
  make(ET_DYN, {SHT_DYNSYM}, {{"sized", STT_FUNC, 0x1000, 8}}, 0);
  EXPECT_EQ(parse(), 0);
  EXPECT_EQ(told, told_symbols{});
}

TEST_F(symbol_parser_test, an_entry_size_that_promises_more_symbols_than_there_are_finds_those_that_there_are) {
  make(ET_DYN, {SHT_DYNSYM}, {{"one", STT_FUNC, 0x1000, 8}, {"two", STT_FUNC, 0x2000, 8}}, 1);
  EXPECT_EQ(parse(), 0);
  EXPECT_LE(told.size(), 2u);
}

TEST_F(symbol_parser_test, a_name_outside_its_table_is_no_function) {
  make(ET_DYN, {SHT_DYNSYM}, {{"good", STT_FUNC, 0x1000, 8}});
  const std::uint32_t outside = 0x10000000;
  // Behind the header, the names (1 + 5 bytes, to a multiple of 8) and the empty symbol.
  ASSERT_EQ(pwrite(fd, &outside, sizeof outside, sizeof(Elf64_Ehdr) + 8 + sizeof(Elf64_Sym)), 4);
  EXPECT_EQ(parse(), 0);
  EXPECT_EQ(told, told_symbols{});
}

TEST_F(symbol_parser_test, a_file_that_is_no_elf_file_is_told_at_debug_alone) {
  write_file("this is no ELF file, but a text that is longer than an ELF file's header would have to be.");
  {
    const captured_log log;
    EXPECT_EQ(parse(), -1);
    EXPECT_EQ(log.lines().size(), 0u);
  }
  log_state::engine_log_level = LEVEL_DEBUG;
  const captured_log log;
  EXPECT_EQ(parse(), -1);
  log_state::engine_log_level = LEVEL_WARN;
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("debug error reading the ELF executable header: ", 0), 0u) << log.lines()[0];
  EXPECT_EQ(told, told_symbols{});
}

TEST_F(symbol_parser_test, an_elf_file_without_a_readable_header_is_a_warning) {
  // 32 bits: a header of the other class.
  write_file(std::string(ELFMAG) + static_cast<char>(ELFCLASS32) + static_cast<char>(ELFDATA2LSB) +
             static_cast<char>(EV_CURRENT) + std::string(100, '\0'));
  const captured_log log;
  EXPECT_EQ(parse(), -1);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("warn error reading the ELF executable header: ", 0), 0u) << log.lines()[0];
}

TEST_F(symbol_parser_test, an_executable_mapping_of_a_file_has_its_functions_told) {
  make(ET_DYN, {SHT_DYNSYM}, {{"mapped", STT_FUNC, 0x1000, 8}});
  deliver_mapped_file(fd, 0x10000);
  EXPECT_EQ(told, (told_symbols{{"mapped", 0x11000, 8}}));
}

class mapped_symbols_test : public symbol_parser_test {
 protected:
  mapped_symbols_test() {
    interval_map_init(&engine.exec_ranges, EXEC_RANGES_CAPACITY);
    engine.argv = arguments;
  }
  ~mapped_symbols_test() override { interval_map_delete(&engine.exec_ranges, 0, ~std::uint64_t{0}); }

  char name[8] = "/bin/sh";
  char* arguments[2] = {name, nullptr};
};

TEST_F(mapped_symbols_test, a_file_that_is_mapped_in_two_pieces_has_its_functions_told_from_both_addresses) {
  make(ET_DYN, {SHT_DYNSYM}, {{"mapped", STT_FUNC, 0x1000, 8}});
  report_vm_op(VM_MAP, 0x10000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0, 0, 0);
  report_vm_op(VM_MAP, 0x40000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0x1000, 0, 0);
  EXPECT_EQ(told, (told_symbols{{"mapped", 0x11000, 8}, {"mapped", 0x41000, 8}}));
}

TEST_F(mapped_symbols_test, the_interpreters_marker_keeps_a_mapping_from_being_searched_and_the_applications_does_not) {
  make(ET_DYN, {SHT_DYNSYM}, {{"mapped", STT_FUNC, 0x1000, 8}});
  report_vm_op(VM_MAP, 0x10000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE | VM_FLAG_INTERPRETER, fd, 0, 0, 0);
  EXPECT_EQ(told, told_symbols{});
  report_vm_op(VM_MAP, 0x20000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE | VM_FLAG_APPLICATION, fd, 0, 0, 0);
  EXPECT_EQ(told, (told_symbols{{"mapped", 0x21000, 8}}));
}

TEST_F(symbol_parser_test, a_descriptor_that_cannot_be_read_is_passed_over_in_silence) {
  const captured_log log;
  deliver_mapped_file(9999, 0x10000);
  EXPECT_EQ(told, told_symbols{});
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

}  // namespace
}  // namespace ceilmeter
