// Layout and the file's form. The file has two segments, code (with the ELF header in its first page) and data, whose
// table of addresses alone is in the file.
#include "program.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t NOP = 0xd503201f;

std::uint32_t size_of(const item& one) {
  return one.state == item_state::GONE ? 0 : static_cast<std::uint32_t>(one.words.size());
}

class layout {
 public:
  explicit layout(const program& made) : made_(made), addresses_(item_addresses(made)) {}

  std::uint64_t address_of(place where) const {
    if (where.function == NO_FUNCTION) return 0;
    const std::vector<std::uint64_t>& items = addresses_[where.function];
    return where.item == LAST_ITEM ? items.back() : items[where.item];
  }

  void put(const item& one, std::uint64_t at, std::vector<std::uint32_t>* code) const {
    if (one.state == item_state::GONE) return;
    if (one.state == item_state::BLANK) {
      code->insert(code->end(), one.words.size(), NOP);
      return;
    }
    const std::size_t start = code->size();
    code->insert(code->end(), one.words.begin(), one.words.end());
    for (const fixup& fix : one.fixups) {
      resolve(fix, at + fix.word * 4, code->data() + start + fix.word);
    }
  }

 private:
  void resolve(const fixup& fix, std::uint64_t from, std::uint32_t* word) const {
    const std::uint64_t to = address_of(fix.target) + fix.addend;
    const std::uint64_t offset = to - from;
    switch (fix.kind) {
      case fixup_kind::BRANCH: *word |= static_cast<std::uint32_t>(offset >> 2) & 0x3ffffff; break;
      case fixup_kind::BRANCH_19: *word |= (static_cast<std::uint32_t>(offset >> 2) & 0x7ffff) << 5; break;
      case fixup_kind::BRANCH_14: *word |= (static_cast<std::uint32_t>(offset >> 2) & 0x3fff) << 5; break;
      case fixup_kind::ADDRESS: *word |= adr_fields(static_cast<std::uint32_t>(offset)); break;
      case fixup_kind::PAGE: *word |= adr_fields(static_cast<std::uint32_t>((to >> 12) - (from >> 12))); break;
      case fixup_kind::LOW_12: *word |= static_cast<std::uint32_t>(to & 0xfff) << 10; break;
      case fixup_kind::WIDE:
        for (int i = 0; i < 4; ++i) word[i] |= static_cast<std::uint32_t>(to >> (16 * i) & 0xffff) << 5;
        break;
    }
  }

  static std::uint32_t adr_fields(std::uint32_t offset) { return (offset & 3) << 29 | (offset >> 2 & 0x7ffff) << 5; }

  const program& made_;
  std::vector<std::vector<std::uint64_t>> addresses_;
};

bool write_at(int file, const void* bytes, std::size_t size, off_t offset) {
  if (pwrite(file, bytes, size, offset) == static_cast<ssize_t>(size)) return true;
  if (errno == 0) errno = EIO;
  return false;
}

}  // namespace

void item::add_constant(std::uint32_t reg, std::uint64_t value) {
  std::uint32_t buffer[4];
  std::uint32_t* end = buffer;
  a64_load_const(&end, reg, value);
  words.insert(words.end(), buffer, end);
}

std::vector<std::vector<std::uint64_t>> item_addresses(const program& made) {
  std::vector<std::vector<std::uint64_t>> addresses;
  std::uint64_t at = made.base + CODE_OFFSET;
  for (const function& one : made.functions) {
    std::vector<std::uint64_t>& items = addresses.emplace_back();
    items.reserve(one.items.size());
    for (const item& part : one.items) {
      items.push_back(at);
      at += size_of(part) * 4;
    }
  }
  return addresses;
}

image lay_out(const program& made) {
  image result;
  result.base = made.base;
  result.has_sve = made.has_sve;
  const layout places(made);
  result.entry = places.address_of({made.main, 0});
  for (std::uint32_t f = 0; f < made.functions.size(); ++f) {
    const std::vector<item>& items = made.functions[f].items;
    for (std::uint32_t i = 0; i < items.size(); ++i) places.put(items[i], places.address_of({f, i}), &result.code);
  }
  for (const place& one : made.table) result.table.push_back(places.address_of(one));
  return result;
}

bool write_elf(const image& what, const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
  if (file < 0) return false;
  Elf64_Ehdr header = {};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS64;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_type = ET_EXEC;
  header.e_machine = EM_AARCH64;
  header.e_version = EV_CURRENT;
  header.e_entry = what.entry;
  header.e_phoff = sizeof header;
  header.e_ehsize = sizeof header;
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = 2;

  const std::uint64_t code_size = what.code.size() * 4;
  const std::uint64_t table_size = what.table.size() * 8;
  Elf64_Phdr segments[2] = {};
  segments[0] = {PT_LOAD, PF_R | PF_X, 0, what.base, what.base, CODE_OFFSET + code_size, CODE_OFFSET + code_size,
                 0x10000};
  segments[1] = {PT_LOAD,    PF_R | PF_W, DATA_OFFSET, what.base + DATA_OFFSET, what.base + DATA_OFFSET,
                 table_size, DATA_SIZE,   0x10000};
  errno = 0;
  bool written = write_at(file, &header, sizeof header, 0) &&
                 write_at(file, segments, sizeof segments, sizeof header) &&
                 write_at(file, what.code.data(), code_size, CODE_OFFSET) &&
                 (table_size == 0 || write_at(file, what.table.data(), table_size, DATA_OFFSET));
  if (close(file) != 0) written = false;
  return written;
}

}  // namespace ceilmeter
