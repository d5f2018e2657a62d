// The program loader: it does by hand, inside a running process, what the kernel does at an execve. Two things differ
// from the kernel's work. The engine is told of every mapping. And nothing of the tool may be harmed: segments are
// mapped with MAP_FIXED, which replaces what it meets. So before the first segment of a file is mapped, the file's
// numbers are checked and its addresses are known to be free or reserved. An unusable file ends in a message, never in
// a fault of the loader.
#include "elf/elf_loader.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bi/mora.h"
#include "bi/kernel/pages.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/kernel/syscalls.h"
#include "common/log.h"
#include "common/own_descriptor.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/elf/elf_loader"};

constexpr std::size_t INTERPRETER_PATH_SIZE = 256;  // With its terminator.

constexpr int reservation_flags = MAP_PRIVATE | MAP_ANONYMOUS;
constexpr int segment_flags = MAP_PRIVATE | MAP_FIXED;

// A file that is being loaded. The headers are libelf's copies, which relocation changes.
struct image {
  const char* path;
  int fd;
  std::uint64_t file_size;
  bool is_interpreter;
  Elf64_Ehdr* header;
  Elf64_Phdr* program_headers;
  std::size_t program_header_count;
  std::uint64_t base;  // Of the reservation: what addresses of an ET_DYN file are moved by.
};

// From the lowest address of a PT_LOAD header to the highest end; the other way round if there is none.
struct address_span {
  std::uint64_t lowest;
  std::uint64_t highest;
  std::uint64_t alignment;  // The largest that a header asks for, at least a page.
};

// Where a PT_LOAD header's pages go. All but `file_offset` are whole pages if the header is one that can be mapped.
struct segment_pages {
  std::uint64_t page_offset;  // Of the segment's first byte in its first page.
  std::uint64_t address;
  std::uint64_t file_length;    // Of the part that is mapped from the file.
  std::uint64_t memory_length;  // Of all of it.
  std::uint64_t file_offset;
};

std::uint64_t page_down(std::uint64_t address) { return ceilmeter::page_down(address, page_size()); }
std::uint64_t page_up(std::uint64_t address) { return ceilmeter::page_up(address, page_size()); }

// The result is MAP_FAILED's value for a failure.
std::uint64_t map(std::uint64_t address, std::uint64_t size, int protection, int flags, int fd, std::uint64_t offset) {
  return reinterpret_cast<std::uint64_t>(
      mmap(reinterpret_cast<void*>(address), size, protection, flags, fd, static_cast<off_t>(offset)));
}

constexpr std::uint64_t map_failed = ~std::uint64_t{0};

segment_pages pages_of(const Elf64_Phdr& segment) {
  segment_pages pages{};
  pages.page_offset = segment.p_vaddr % page_size();
  pages.address = segment.p_vaddr - pages.page_offset;
  pages.file_length = page_up(pages.page_offset + segment.p_filesz);
  pages.memory_length = page_up(pages.page_offset + segment.p_memsz);
  pages.file_offset = segment.p_offset - pages.page_offset;
  return pages;
}

// Opens and identifies the file. The descriptor stays open for the process's life: mappings are reported with it.
void open_image(image& file, Elf** elf_out) {
  errno = 0;
  file.fd = open(file.path, O_RDONLY | O_CLOEXEC);
  if (file.fd < 0) mora_log_exit(EXIT_FAILURE, "Error: couldn't open file %s", file.path);
  file.fd = move_out_of_the_way(file.fd);
  if (elf_version(EV_CURRENT) == EV_NONE) mora_log_exit(EXIT_FAILURE, "Error: failed to get ELF version");
  Elf* elf = elf_begin(file.fd, ELF_C_READ, nullptr);
  *elf_out = elf;
  if (elf == nullptr) mora_log_exit(EXIT_FAILURE, "Error opening ELF file: %s: %s", file.path, elf_errmsg(-1));
  if (elf_kind(elf) != ELF_K_ELF) mora_log_exit(EXIT_FAILURE, "Error: file %s isn't an ELF file", file.path);

  // Look at the class before the header: elf64_getehdr refuses a 32-bit file with a less plain message.
  const char* identification = elf_getident(elf, nullptr);
  if (identification != nullptr && identification[EI_CLASS] == ELFCLASS32) {
    mora_log_exit(EXIT_FAILURE, "Error: incorrect binary format, got a 32-bit ELF file");
  }
  file.header = elf64_getehdr(elf);
  if (file.header == nullptr) {
    mora_log_exit(EXIT_FAILURE, "Error reading the ELF executable header: %s", elf_errmsg(-1));
  }
  // libelf converts a big-endian file's header to this machine's order, so its machine field looks right. Its code is
  // still big-endian.
  if (file.header->e_machine != EM_AARCH64 || file.header->e_ident[EI_DATA] != ELFDATA2LSB) {
    mora_log_exit(EXIT_FAILURE, "Error: incorrect binary format, not compiled for ARM");
  }
}

void read_program_headers(image& file, Elf* elf) {
  struct stat status {};
  if (fstat(file.fd, &status) == 0 && status.st_size > 0) file.file_size = static_cast<std::uint64_t>(status.st_size);
  if (file.header->e_phnum == 0) return;
  // libelf counts the headers that the file has room for. A file that was cut within its table seems to have fewer
  // headers, or none.
  const int result = elf_getphdrnum(elf, &file.program_header_count);
  file.program_headers = elf64_getphdr(elf);
  if (result != 0 || file.program_headers == nullptr) {
    mora_log_exit(EXIT_FAILURE, "Error reading the ELF executable header: %s", elf_errmsg(-1));
  }
}

// Whether a PT_LOAD header states a part of the file and a place that this part can have. What passes maps without
// wrapping, with congruent addresses, and without a page that lies wholly beyond the file (its first touch would be a
// SIGBUS).
bool can_be_mapped(const image& file, const Elf64_Phdr& segment) {
  const std::uint64_t page = page_size();
  std::uint64_t end = 0;
  if (segment.p_filesz > segment.p_memsz) return false;
  if (__builtin_add_overflow(segment.p_vaddr, segment.p_memsz, &end) || end > ~std::uint64_t{0} - page) return false;
  const segment_pages pages = pages_of(segment);
  if (pages.file_length == 0) return true;
  if (segment.p_offset % page != pages.page_offset) return false;
  if (segment.p_filesz == 0) return pages.file_offset < file.file_size;
  return segment.p_offset < file.file_size && segment.p_filesz <= file.file_size - segment.p_offset;
}

address_span span_of(const image& file) {
  address_span span{~std::uint64_t{0}, 0, page_size()};
  for (std::size_t index = 0; index < file.program_header_count; ++index) {
    const Elf64_Phdr& segment = file.program_headers[index];
    if (segment.p_type != PT_LOAD) continue;
    if (!can_be_mapped(file, segment)) {
      mora_log_exit(EXIT_FAILURE, "Error: incorrect binary format, program header %zu can't be mapped", index);
    }
    span.lowest = std::min(span.lowest, segment.p_vaddr);
    span.highest = std::max(span.highest, segment.p_vaddr + segment.p_memsz);
    const bool is_power_of_two = (segment.p_align & (segment.p_align - 1)) == 0;
    if (is_power_of_two) span.alignment = std::max(span.alignment, segment.p_align);
  }
  return span;
}

// Reserves `size` bytes at a multiple of `alignment`, or at any place of the kernel's choice if there is no such place.
std::uint64_t reserve_aligned(std::uint64_t size, std::uint64_t alignment) {
  std::uint64_t padded = 0;
  const std::uint64_t length = page_up(size);
  if (__builtin_add_overflow(length, alignment, &padded)) return map(0, size, PROT_NONE, reservation_flags, -1, 0);
  const std::uint64_t start = map(0, padded, PROT_NONE, reservation_flags, -1, 0);
  if (start == map_failed) return map(0, size, PROT_NONE, reservation_flags, -1, 0);
  const std::uint64_t aligned = (start + alignment - 1) & ~(alignment - 1);
  const std::uint64_t end = start + padded;
  if (aligned != start) munmap(reinterpret_cast<void*>(start), aligned - start);
  if (aligned + length != end) munmap(reinterpret_cast<void*>(aligned + length), end - aligned - length);
  return aligned;
}

// Reserves [start, end), unless something is there. Without MAP_FIXED the kernel takes the address if it is free, and
// another one if it isn't.
bool claim(std::uint64_t start, std::uint64_t end) {
  return start >= end || map(start, end - start, PROT_NONE, reservation_flags, -1, 0) == start;
}

// Reserves the addresses of the image as one piece and stores where the piece is. The lowest address is a hint, not a
// demand. What the file needs beyond the piece that it got is claimed, too; if that fails, the file is refused. So two
// things are never replaced: what already stands at the addresses of a fixed file, and what stands above the piece of a
// position-independent file that was linked above 0.
void reserve_addresses(image& file) {
  const address_span span = span_of(file);
  const bool moves = file.header->e_type == ET_DYN;
  // Without a segment the hint is all ones and the size comes out as 1.
  const std::uint64_t size = span.highest - span.lowest;
  std::uint64_t base = map(span.lowest, size, PROT_NONE, reservation_flags, -1, 0);
  if (moves && base != map_failed && base % span.alignment != 0) {
    // Data that is aligned beyond a page relies on the image's alignment. The kernel's loader provides it, too.
    munmap(reinterpret_cast<void*>(base), size);
    base = reserve_aligned(size, span.alignment);
  }

  bool usable = base != map_failed;
  if (usable && span.lowest <= span.highest) {
    const std::uint64_t reserved_end = base + page_up(size);
    const std::uint64_t start = page_down(span.lowest) + (moves ? base : 0);
    const std::uint64_t end = page_up(span.highest) + (moves ? base : 0);
    const bool wraps = moves && end < base;
    const bool starts_within = start >= base && start <= reserved_end;
    usable = !wraps && (starts_within ? claim(reserved_end, end) : moves && claim(start, end));
  }
  if (!usable) mora_log_exit(EXIT_FAILURE, "Error: couldn't reserve the addresses of file %s", file.path);
  file.base = base;
  report_vm_op(VM_MAP, base, size, PROT_NONE, reservation_flags, -1, 0, 0, 0);
}

// Copies the interpreter's path out of the file into the INTERPRETER_PATH_SIZE bytes at `path`.
void read_interpreter_path(const Elf64_Phdr& segment, std::FILE* stream, char* path) {
  log(LEVEL_TRACE, "INTERP field found");
  if (segment.p_filesz >= INTERPRETER_PATH_SIZE) {
    mora_log_exit(EXIT_FAILURE, "Error: incorrect binary format, INTERP filename longer than the buffer");
  }
  if (stream == nullptr || std::fseek(stream, static_cast<long>(segment.p_offset), SEEK_SET) != 0) {
    mora_log_exit(EXIT_FAILURE, "Error: incorrect binary format, seek to INTERP field failed");
  }
  if (std::fread(path, 1, segment.p_filesz, stream) != segment.p_filesz) {
    mora_log_exit(EXIT_FAILURE, "Failed reading INTERP string");
  }
  path[segment.p_filesz] = '\0';
}

void log_program_header(const Elf64_Phdr& header) {
  log(LEVEL_TRACE, "p_type: 0x%x", header.p_type);
  log(LEVEL_TRACE, "p_offset: 0x%zx", header.p_offset);
  log(LEVEL_TRACE, "p_vaddr: 0x%zx", header.p_vaddr);
  log(LEVEL_TRACE, "p_paddr: 0x%zx", header.p_paddr);
  log(LEVEL_TRACE, "p_filesz: 0x%zx", header.p_filesz);
  log(LEVEL_TRACE, "p_memsz: 0x%zx", header.p_memsz);
  log(LEVEL_TRACE, "p_flags: 0x%x", header.p_flags);
  log(LEVEL_TRACE, "p_align: 0x%zx", header.p_align);
}

int protection_of(const Elf64_Phdr& segment) {
  return ((segment.p_flags & PF_R) != 0 ? PROT_READ : 0) | ((segment.p_flags & PF_W) != 0 ? PROT_WRITE : 0) |
         ((segment.p_flags & PF_X) != 0 ? PROT_EXEC : 0);
}

// Maps one PT_LOAD segment and changes the header's p_vaddr to its run-time address. A failing mapping is not an error
// here: the application finds the reservation there and faults, as it does natively where the kernel can't map a part
// of it.
void map_segment(const image& file, Elf64_Phdr& segment) {
  const int protection = protection_of(segment);
  if (file.header->e_type == ET_DYN) segment.p_vaddr += file.base;
  const segment_pages pages = pages_of(segment);

  if (pages.file_length != 0) {
    const std::uint64_t result =
        map(pages.address, pages.file_length, protection, segment_flags, file.fd, pages.file_offset);
    const std::uint32_t marker = file.is_interpreter ? VM_FLAG_INTERPRETER : VM_FLAG_APPLICATION;
    report_vm_op(VM_MAP, pages.address, pages.file_length, static_cast<std::uint32_t>(protection),
                 segment_flags | marker, file.fd, pages.file_offset, 0, 0);
    if ((segment.p_flags & PF_W) != 0 && result == pages.address) {
      const std::uint64_t file_end = segment.p_vaddr + segment.p_filesz;
      std::memset(reinterpret_cast<void*>(file_end), 0, pages.address + pages.file_length - file_end);
    }
  }
  if (pages.file_length < pages.memory_length) {
    const std::uint64_t start = pages.address + pages.file_length;
    const std::uint64_t length = pages.memory_length - pages.file_length;
    map(start, length, protection, segment_flags | MAP_ANONYMOUS, -1, 0);
    report_vm_op(VM_MAP, start, length, static_cast<std::uint32_t>(protection), segment_flags | MAP_ANONYMOUS, -1, 0, 0,
                 0);
  }
  if (!file.is_interpreter) engine.brk = std::max(engine.brk, pages.address + pages.memory_length);
}

}  // namespace

void load_elf(const char* path, Elf** elf_out, elf_aux_values* aux, std::uint64_t* entry_out, int is_interpreter) {
  image file{path, -1, 0, is_interpreter != 0, nullptr, nullptr, 0, 0};
  open_image(file, elf_out);
  // Deliberately for the interpreter alone: plug-ins know the application's file before it is loaded.
  if (file.is_interpreter) deliver_elf_load(path, file.fd);
  std::FILE* stream = fdopen(file.fd, "r");
  read_program_headers(file, *elf_out);
  reserve_addresses(file);

  if (file.header->e_type == ET_DYN) file.header->e_entry += file.base;
  *entry_out = file.header->e_entry;
  if (!file.is_interpreter) {
    aux->at_base = 0;
    aux->at_entry = file.header->e_entry;
  }
  if (file.program_header_count == 0) {
    if (file.is_interpreter) {
      aux->at_base = 0;
    } else {
      aux->at_phdr = 0;
      aux->at_phnum = 0;
    }
    return;
  }

  // If there is an interpreter, *entry_out and *elf_out become the interpreter's here. An interpreter's own interpreter
  // is ignored, as the kernel ignores it; otherwise a file that names itself would be loaded without end.
  for (std::size_t index = 0; index < file.program_header_count && !file.is_interpreter; ++index) {
    if (file.program_headers[index].p_type != PT_INTERP) continue;
    char interpreter_path[INTERPRETER_PATH_SIZE];
    read_interpreter_path(file.program_headers[index], stream, interpreter_path);
    load_elf(interpreter_path, elf_out, aux, entry_out, 1);
    break;
  }

  if (file.is_interpreter) {
    aux->at_base = 0;
  } else {
    aux->at_phdr = 0;
    aux->at_phnum = file.program_header_count;
  }
  for (std::size_t index = 0; index < file.program_header_count; ++index) {
    Elf64_Phdr& header = file.program_headers[index];
    log_program_header(header);
    if (header.p_type != PT_LOAD) {
      log(LEVEL_TRACE, "unhandled program header table entry type");
      continue;
    }
    map_segment(file, header);
    if (header.p_offset != 0) continue;
    if (file.is_interpreter) {
      aux->at_base = header.p_vaddr;
    } else {
      aux->at_phdr = header.p_vaddr + file.header->e_phoff;
    }
  }
}

}  // namespace ceilmeter
