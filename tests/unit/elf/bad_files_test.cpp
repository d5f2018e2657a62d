// Files that cannot be loaded: each ends the process with status 1 and one line that says why.
#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "loader_fixture.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t fixed = 0x1000000;

class bad_file : public loader_fixture {
 protected:
  // The output of a child that loads the file. The line is compared as a whole, and there must be no other output.
  static child_outcome outcome_of_loading(const std::string& path) {
    return run_in_child([&] { load(path); });
  }

  static child_outcome refusal(const std::string& line) { return {1, "", line + "\n"}; }

  // A valid file, which a test then spoils.
  static elf_image good_image(std::uint16_t type = ET_EXEC) {
    elf_image image(type, fixed);
    image.place(0x1000, "code");
    image.add_segment(PF_R | PF_X, 0, fixed, 0x1004, 0x1004);
    return image;
  }

  // The file whose first program header `spoil` has changed is refused for that header.
  void expect_refused(const std::function<void(Elf64_Phdr&)>& spoil) {
    elf_image image = good_image();
    spoil(image.program_headers[0]);
    EXPECT_EQ(outcome_of_loading(folder.write("spoilt", image.bytes())),
              refusal("Error: incorrect binary format, program header 0 can't be mapped"));
  }

  void expect_interpreter_refused(const std::string& path, const std::string& line) {
    elf_image image = good_image();
    image.add_interpreter(path, 0x800);
    EXPECT_EQ(outcome_of_loading(folder.write("application", image.bytes())), refusal(line));
  }
};

TEST_F(bad_file, loads_as_long_as_nothing_is_spoilt) {
  EXPECT_EQ(outcome_of_loading(folder.write("good", good_image().bytes())), (child_outcome{0, "", ""}));
}

TEST_F(bad_file, that_does_not_exist_could_not_be_opened) {
  const std::string path = folder / "missing";
  EXPECT_EQ(outcome_of_loading(path), refusal("Error: couldn't open file " + path));
}

TEST_F(bad_file, that_may_not_be_read_could_not_be_opened) {
  const std::string path = folder.write("secret", good_image().bytes());
  std::filesystem::permissions(path, std::filesystem::perms::none);
  const child_outcome outcome = run_in_child([&] {
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) _exit(99);  // Permissions don't hold for root.
    load(path);
  });
  EXPECT_EQ(outcome, refusal("Error: couldn't open file " + path));
}

TEST_F(bad_file, that_is_a_directory_is_an_invalid_descriptor) {
  const std::string path = folder / "folder";
  std::filesystem::create_directory(path);
  EXPECT_EQ(outcome_of_loading(path), refusal("Error opening ELF file: " + path + ": invalid file descriptor"));
}

TEST_F(bad_file, that_is_empty_is_no_elf_file) {
  const std::string path = folder.write("empty", "");
  EXPECT_EQ(outcome_of_loading(path), refusal("Error: file " + path + " isn't an ELF file"));
}

TEST_F(bad_file, of_text_is_no_elf_file) {
  const std::string path =
      folder.write("script", "#!/bin/sh\necho a text that is longer than the header of an ELF file is\n");
  EXPECT_EQ(outcome_of_loading(path), refusal("Error: file " + path + " isn't an ELF file"));
}

TEST_F(bad_file, that_ends_within_its_header_is_no_elf_file) {
  for (const std::size_t size : {1UL, 4UL, 15UL, 16UL, 52UL, 63UL}) {
    const std::string path = folder.write("cut", good_image().bytes().substr(0, size));
    EXPECT_EQ(outcome_of_loading(path), refusal("Error: file " + path + " isn't an ELF file")) << size << " bytes";
  }
}

TEST_F(bad_file, that_ends_within_its_program_headers_has_invalid_data) {
  elf_image image = good_image();
  image.add_header(PT_NOTE, 0, 0);
  for (const std::size_t size : {64UL, 65UL, 64UL + 55, 64UL + 56, 64UL + 111}) {
    const std::string path = folder.write("cut", image.bytes().substr(0, size));
    EXPECT_EQ(outcome_of_loading(path), refusal("Error reading the ELF executable header: invalid data"))
        << size << " bytes";
  }
}

TEST_F(bad_file, that_ends_within_a_segment_is_refused) {
  for (const std::size_t size : {64UL + 56, 0xfffUL, 0x1003UL}) {
    const std::string path = folder.write("cut", good_image().bytes().substr(0, size));
    EXPECT_EQ(outcome_of_loading(path), refusal("Error: incorrect binary format, program header 0 can't be mapped"))
        << size << " bytes";
  }
}

TEST_F(bad_file, of_32_bits_is_told_so) {
  Elf32_Ehdr header{};
  std::memcpy(header.e_ident, ELFMAG, SELFMAG);
  header.e_ident[EI_CLASS] = ELFCLASS32;
  header.e_ident[EI_DATA] = ELFDATA2LSB;
  header.e_ident[EI_VERSION] = EV_CURRENT;
  header.e_type = ET_EXEC;
  header.e_machine = EM_ARM;
  header.e_version = EV_CURRENT;
  header.e_ehsize = sizeof header;
  const std::string content(reinterpret_cast<const char*>(&header), sizeof header);
  EXPECT_EQ(outcome_of_loading(folder.write("arm", content + std::string(64, '\0'))),
            refusal("Error: incorrect binary format, got a 32-bit ELF file"));
}

TEST_F(bad_file, for_x86_64_is_not_compiled_for_this_machine) {
  elf_image image = good_image();
  image.header.e_machine = EM_X86_64;
  EXPECT_EQ(outcome_of_loading(folder.write("x86", image.bytes())),
            refusal("Error: incorrect binary format, not compiled for ARM"));
}

TEST_F(bad_file, of_big_endian_aarch64_is_not_compiled_for_this_machine) {
  elf_image image = good_image();
  image.header.e_ident[EI_DATA] = ELFDATA2MSB;
  image.program_headers.clear();
  const auto swap = [](auto& field) {
    auto* bytes = reinterpret_cast<char*>(&field);
    std::reverse(bytes, bytes + sizeof field);
  };
  swap(image.header.e_type);
  swap(image.header.e_machine);
  swap(image.header.e_version);
  swap(image.header.e_entry);
  swap(image.header.e_phoff);
  swap(image.header.e_ehsize);
  swap(image.header.e_phentsize);
  EXPECT_EQ(outcome_of_loading(folder.write("big", image.bytes())),
            refusal("Error: incorrect binary format, not compiled for ARM"));
}

// Program headers that no kernel would map either -----------------------------------------------------------------

TEST_F(bad_file, with_more_bytes_in_the_file_than_in_memory_is_refused) {
  expect_refused([](Elf64_Phdr& segment) { segment.p_memsz = segment.p_filesz - 1; });
}

TEST_F(bad_file, whose_segment_wraps_around_memory_is_refused) {
  expect_refused([](Elf64_Phdr& segment) { segment.p_memsz = ~std::uint64_t{0}; });
}

TEST_F(bad_file, whose_segment_ends_in_the_last_page_of_all_is_refused) {
  expect_refused([](Elf64_Phdr& segment) { segment.p_memsz = ~std::uint64_t{0} - fixed; });
}

TEST_F(bad_file, whose_segment_wraps_around_the_file_is_refused) {
  expect_refused([](Elf64_Phdr& segment) { segment.p_offset = ~std::uint64_t{0} - 0xffff; });
}

TEST_F(bad_file, whose_segment_lies_behind_the_file_is_refused) {
  expect_refused([](Elf64_Phdr& segment) { segment.p_offset = 16 * largest_page; });
}

TEST_F(bad_file, whose_offset_and_address_differ_within_a_page_is_refused) {
  expect_refused([](Elf64_Phdr& segment) { segment.p_vaddr += 16; });
}

TEST_F(bad_file, whose_empty_segment_begins_in_a_page_behind_the_file_is_refused) {
  expect_refused([](Elf64_Phdr& segment) {
    segment.p_filesz = 0;
    segment.p_offset = 16 * largest_page + 16;
    segment.p_vaddr = fixed + 16;
  });
}

TEST_F(bad_file, that_wants_addresses_beyond_all_memory_is_refused) {
  elf_image image = good_image();
  image.program_headers[0].p_vaddr = std::uint64_t{1} << 56;
  const std::string path = folder.write("beyond", image.bytes());
  EXPECT_EQ(outcome_of_loading(path), refusal("Error: couldn't reserve the addresses of file " + path));
}

TEST_F(bad_file, that_is_larger_than_all_memory_is_refused) {
  elf_image image = good_image(ET_DYN);
  image.program_headers[0].p_vaddr = 0;
  image.program_headers[0].p_memsz = std::uint64_t{1} << 60;
  const std::string path = folder.write("huge", image.bytes());
  EXPECT_EQ(outcome_of_loading(path), refusal("Error: couldn't reserve the addresses of file " + path));
}

// Segments replace what is mapped in their place: a file must not be able to replace the process that loads it.
TEST_F(bad_file, whose_addresses_are_in_use_is_refused) {
  static int in_use = 0;
  const auto page = reinterpret_cast<std::uint64_t>(&in_use) & ~(largest_page - 1);
  elf_image image = good_image();
  for (const std::uint64_t address : {page, page - largest_page}) {
    image.program_headers[0].p_vaddr = address;
    image.program_headers[0].p_memsz = 2 * largest_page;
    const std::string path = folder.write("overlay", image.bytes());
    EXPECT_EQ(outcome_of_loading(path), refusal("Error: couldn't reserve the addresses of file " + path));
  }
}

TEST_F(bad_file, whose_last_page_alone_is_in_use_is_refused) {
  const std::uint64_t page = kernel_page_size();
  elf_image image(ET_EXEC, fixed);
  image.place(0, std::string(2 * page, 'x'));
  // 16 bytes on either side of a page's end: the bytes fit in one page, their addresses touch two.
  image.add_segment(PF_R, page - 16, fixed + page - 16, 32, 32);
  const std::string path = folder.write("two_pages", image.bytes());
  const child_outcome outcome = run_in_child([&] {
    mmap(reinterpret_cast<void*>(fixed + page), page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    load(path);
  });
  EXPECT_EQ(outcome, refusal("Error: couldn't reserve the addresses of file " + path));
}

// Interpreters ----------------------------------------------------------------------------------------------------

TEST_F(bad_file, with_a_missing_interpreter_names_the_interpreter) {
  const std::string path = folder / "no-interpreter";
  expect_interpreter_refused(path, "Error: couldn't open file " + path);
}

TEST_F(bad_file, whose_interpreter_is_no_elf_file_names_the_interpreter) {
  const std::string path = folder.write("text", "text");
  expect_interpreter_refused(path, "Error: file " + path + " isn't an ELF file");
}

TEST_F(bad_file, whose_interpreter_is_for_another_machine_is_refused) {
  elf_image interpreter(ET_DYN);
  interpreter.header.e_machine = EM_X86_64;
  expect_interpreter_refused(folder.write("interpreter", interpreter.bytes()),
                             "Error: incorrect binary format, not compiled for ARM");
}

TEST_F(bad_file, with_256_bytes_of_interpreter_path_is_refused) {
  expect_interpreter_refused(std::string(255, 'i'),
                             "Error: incorrect binary format, INTERP filename longer than the buffer");
}

// A path of 255 bytes is accepted; then the interpreter's file is missing.
TEST_F(bad_file, with_255_bytes_of_interpreter_path_is_looked_for) {
  const std::string path = "/" + std::string(253, 'i');
  expect_interpreter_refused(path, "Error: couldn't open file " + path);
}

TEST_F(bad_file, with_255_bytes_and_no_terminator_has_a_path_of_255_bytes) {
  const std::string path = "/" + std::string(254, 'i');
  elf_image image = good_image();
  image.place(0x800, path + "behind the path");
  image.add_header(PT_INTERP, 0x800, path.size());
  EXPECT_EQ(outcome_of_loading(folder.write("application", image.bytes())),
            refusal("Error: couldn't open file " + path));
}

TEST_F(bad_file, with_an_empty_interpreter_path_could_not_be_opened) {
  elf_image image = good_image();
  image.add_header(PT_INTERP, 0x800, 0);
  EXPECT_EQ(outcome_of_loading(folder.write("application", image.bytes())), refusal("Error: couldn't open file "));
}

TEST_F(bad_file, whose_interpreter_path_lies_before_the_file_is_refused) {
  elf_image image = good_image();
  image.add_header(PT_INTERP, ~std::uint64_t{0} - 15, 4);
  EXPECT_EQ(outcome_of_loading(folder.write("application", image.bytes())),
            refusal("Error: incorrect binary format, seek to INTERP field failed"));
}

TEST_F(bad_file, whose_interpreter_path_is_cut_is_refused) {
  elf_image image = good_image();
  const std::uint64_t end = image.bytes().size();
  for (const std::uint64_t offset : {end - 3, end, end + 100}) {
    elf_image cut = image;
    cut.add_header(PT_INTERP, offset, 4);
    EXPECT_EQ(outcome_of_loading(folder.write("application", cut.bytes())), refusal("Failed reading INTERP string"));
  }
}

}  // namespace
}  // namespace ceilmeter::test
