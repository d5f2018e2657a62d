// What load_elf maps, reports and returns. The images are built by hand, so that the test knows every number.
#include "loader_fixture.h"

#include "bi/kernel/syscalls.h"
#include "common/log.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t fixed = 0x1000000;
constexpr std::uint32_t private_anonymous = 0x22;
constexpr std::uint32_t private_fixed = 0x12;
constexpr std::uint32_t private_fixed_anonymous = 50;

std::uint64_t up(std::uint64_t value) {
  const std::uint64_t page = kernel_page_size();
  return (value + page - 1) / page * page;
}

// Headers and code in one segment, and behind them data with a tail of zeros that needs pages of its own.
constexpr std::uint64_t code_size = 0x1234;
constexpr std::uint64_t data_offset = 0x10010;
constexpr std::uint64_t data_address = 0x20010;
constexpr std::uint64_t data_size = 0x20;
constexpr std::uint64_t data_memory = 0x30000;

elf_image two_segments(std::uint16_t type, std::uint64_t at) {
  elf_image image(type, at + 0x1230);
  image.place(0x1230, "code");
  image.place(data_offset, std::string(data_size, 'd'));
  image.place(data_offset + data_size, std::string(largest_page, 'x'));  // Bytes of the file that no segment has.
  image.add_segment(PF_R | PF_X, 0, at, code_size, code_size);
  image.add_segment(PF_R | PF_W, data_offset, at + data_address, data_size, data_memory);
  return image;
}

class loading : public loader_fixture {
 protected:
  loaded load_image(const elf_image& image) { return load(folder.write("application", image.bytes())); }

  loaded load_two_segments(std::uint16_t type) { return load_image(two_segments(type, type == ET_EXEC ? fixed : 0)); }

  // What two_segments() is reported as from `base` on.
  static std::vector<vm_report> reports_of_two_segments(std::uint64_t base, std::int32_t fd, std::uint32_t marker) {
    const std::uint64_t data_page = base + 0x20000;
    const std::uint64_t data_pages = up(0x10 + data_size);
    return {
        {0, base, data_address + data_memory, 0, private_anonymous, -1, 0, 0, 0},
        {0, base, up(code_size), PROT_READ | PROT_EXEC, private_fixed | marker, fd, 0, 0, 0},
        {0, data_page, data_pages, PROT_READ | PROT_WRITE, private_fixed | marker, fd, 0x10000, 0, 0},
        {0, data_page + data_pages, up(0x10 + data_memory) - data_pages, PROT_READ | PROT_WRITE,
         private_fixed_anonymous, -1, 0, 0, 0},
    };
  }

  static void expect_contents_of_two_segments(std::uint64_t base) {
    EXPECT_EQ(memory_at(base, SELFMAG), ELFMAG);
    EXPECT_EQ(memory_at(base + 0x1230, 4), "code");
    EXPECT_EQ(memory_at(base + data_address, data_size), std::string(data_size, 'd'));
    EXPECT_EQ(memory_at(base + data_address + data_size, data_memory - data_size),
              std::string(data_memory - data_size, '\0'));
  }
};

TEST_F(loading, of_a_fixed_executable_reports_reservation_segments_and_zero_pages_in_order) {
  load_two_segments(ET_EXEC);
  ASSERT_EQ(vm_reports.size(), 4U);
  EXPECT_EQ(vm_reports, reports_of_two_segments(fixed, vm_reports[1].fd, VM_FLAG_APPLICATION));
}

TEST_F(loading, of_a_fixed_executable_maps_it_where_it_was_linked) {
  load_two_segments(ET_EXEC);
  expect_contents_of_two_segments(fixed);
}

TEST_F(loading, of_a_fixed_executable_gives_its_addresses_as_they_stand) {
  const loaded application = load_two_segments(ET_EXEC);
  EXPECT_EQ(application.entry, fixed + 0x1230);
  EXPECT_EQ(application.aux.at_entry, fixed + 0x1230);
  EXPECT_EQ(application.aux.at_phdr, fixed + sizeof(Elf64_Ehdr));
  EXPECT_EQ(application.aux.at_phnum, 2U);
}

TEST_F(loading, of_a_position_independent_executable_reports_from_the_reservation_on) {
  load_two_segments(ET_DYN);
  ASSERT_EQ(vm_reports.size(), 4U);
  EXPECT_EQ(vm_reports, reports_of_two_segments(vm_reports[0].addr, vm_reports[1].fd, VM_FLAG_APPLICATION));
}

TEST_F(loading, of_a_position_independent_executable_moves_everything_by_the_base) {
  const loaded application = load_two_segments(ET_DYN);
  const std::uint64_t base = vm_reports.at(0).addr;
  expect_contents_of_two_segments(base);
  EXPECT_EQ(application.entry, base + 0x1230);
  EXPECT_EQ(application.aux.at_entry, base + 0x1230);
  EXPECT_EQ(application.aux.at_phdr, base + sizeof(Elf64_Ehdr));
}

TEST_F(loading, of_a_position_independent_executable_linked_above_0_adds_the_base_to_its_addresses) {
  const loaded application = load_image(two_segments(ET_DYN, 0x40000000));
  const std::uint64_t base = vm_reports.at(0).addr;
  EXPECT_EQ(vm_reports[1].addr, base + 0x40000000);
  expect_contents_of_two_segments(base + 0x40000000);
  EXPECT_EQ(application.entry, base + 0x40000000 + 0x1230);
}

TEST_F(loading, keeps_the_largest_alignment_that_a_segment_asks_for) {
  elf_image image = two_segments(ET_DYN, 0);
  image.program_headers[1].p_align = 0x4000000;
  load_image(image);
  EXPECT_EQ(vm_reports.at(0).addr % 0x4000000, 0U);
  expect_contents_of_two_segments(vm_reports[0].addr);
}

TEST_F(loading, takes_no_notice_of_an_alignment_that_is_none) {
  for (const std::uint64_t alignment : {~std::uint64_t{0}, std::uint64_t{1} << 63, std::uint64_t{0x30001}}) {
    reset();
    elf_image image = two_segments(ET_DYN, 0);
    image.program_headers[0].p_align = alignment;
    load_image(image);
    expect_contents_of_two_segments(vm_reports.at(0).addr);
  }
}

TEST_F(loading, raises_the_break_to_the_end_of_the_highest_segment) {
  load_two_segments(ET_EXEC);
  EXPECT_EQ(engine.brk, fixed + 0x20000 + up(0x10 + data_memory));
}

TEST_F(loading, leaves_a_break_that_is_higher) {
  engine.brk = fixed * 16;
  load_two_segments(ET_EXEC);
  EXPECT_EQ(engine.brk, fixed * 16);
}

TEST_F(loading, of_a_static_executable_gives_no_base) { EXPECT_EQ(load_two_segments(ET_EXEC).aux.at_base, 0U); }

// The ends of segments --------------------------------------------------------------------------------------------

TEST_F(loading, clears_the_tail_of_a_writable_segments_last_page_without_further_pages) {
  elf_image image(ET_DYN);
  image.place(0, std::string(largest_page, 'x'));
  image.add_segment(PF_R | PF_W, 0, 0, 0x100, 0x180);
  load_image(image);
  ASSERT_EQ(vm_reports.size(), 2U) << "a reservation and one segment";
  const std::uint64_t page = kernel_page_size();
  EXPECT_EQ(memory_at(vm_reports[1].addr + 0x100, page - 0x100), std::string(page - 0x100, '\0'));
  EXPECT_EQ(memory_at(vm_reports[1].addr + 0xff, 1), "x");
}

TEST_F(loading, leaves_the_tail_of_a_read_only_segments_last_page) {
  elf_image image(ET_DYN);
  image.place(0, std::string(largest_page, 'x'));
  image.add_segment(PF_R, 0, 0, 0x100, 0x180);
  load_image(image);
  const std::uint64_t page = kernel_page_size();
  EXPECT_EQ(memory_at(vm_reports.at(1).addr + 0x100, page - 0x100), std::string(page - 0x100, 'x'));
}

TEST_F(loading, of_a_segment_without_file_bytes_maps_zero_pages_alone) {
  elf_image image = two_segments(ET_DYN, 0);
  image.add_segment(PF_R | PF_W, 0, 0x60000, 0, 0x100);
  load_image(image);
  ASSERT_EQ(vm_reports.size(), 5U);
  EXPECT_EQ(vm_reports[4], (vm_report{0, vm_reports[0].addr + 0x60000, up(0x100), PROT_READ | PROT_WRITE,
                                      private_fixed_anonymous, -1, 0, 0, 0}));
  EXPECT_EQ(memory_at(vm_reports[4].addr, 0x100), std::string(0x100, '\0'));
}

TEST_F(loading, of_a_segment_that_begins_within_a_page_maps_the_page_from_its_start) {
  elf_image image(ET_EXEC, fixed);
  image.place(largest_page, "page's start");
  image.place(largest_page + 0x20, "segment");
  image.add_segment(PF_R, largest_page + 0x20, fixed + 0x20, 7, 7);
  load_image(image);
  ASSERT_EQ(vm_reports.size(), 2U);
  EXPECT_EQ(vm_reports[1].addr, fixed);
  EXPECT_EQ(vm_reports[1].offset, largest_page);
  EXPECT_EQ(memory_at(fixed, 12), "page's start");
  EXPECT_EQ(memory_at(fixed + 0x20, 7), "segment");
}

TEST_F(loading, of_a_segment_that_touches_one_page_more_than_its_size_takes_that_page_too) {
  const std::uint64_t page = kernel_page_size();
  elf_image image(ET_EXEC, fixed);
  image.place(0, std::string(2 * page, 'y'));
  image.add_segment(PF_R, page - 16, fixed + page - 16, 32, 32);
  load_image(image);
  ASSERT_EQ(vm_reports.size(), 2U);
  EXPECT_EQ(vm_reports[1].size, 2 * page);
  EXPECT_EQ(memory_at(fixed + page - 16, 32), std::string(32, 'y'));
  munmap(reinterpret_cast<void*>(fixed), 2 * page);
}

TEST_F(loading, reports_the_protection_that_each_flag_stands_for) {
  elf_image image(ET_DYN);
  image.place(0, std::string(8 * largest_page, 'z'));
  for (std::uint32_t flags = 0; flags < 8; ++flags) {
    if ((flags & PF_W) != 0 && (flags & PF_R) == 0) continue;  // What hardware makes of those is its own.
    image.add_segment(flags, flags * largest_page, flags * largest_page, 16, 16);
  }
  load_image(image);
  ASSERT_EQ(vm_reports.size(), 7U);
  for (std::size_t index = 1; index < vm_reports.size(); ++index) {
    const std::uint32_t flags = image.program_headers[index - 1].p_flags;
    const std::uint32_t expected =
        ((flags & PF_R) != 0 ? 1U : 0U) | ((flags & PF_W) != 0 ? 2U : 0U) | ((flags & PF_X) != 0 ? 4U : 0U);
    EXPECT_EQ(vm_reports[index].prot, expected) << "p_flags " << flags;
  }
}

// Interpreters ----------------------------------------------------------------------------------------------------

class loading_with_an_interpreter : public loading {
 protected:
  loaded load_with_interpreter(std::uint16_t type = ET_DYN) {
    const std::string interpreter = folder.write("interpreter", two_segments(ET_DYN, 0).bytes());
    elf_image image = two_segments(type, type == ET_EXEC ? fixed : 0);
    image.header.e_entry += 1000;
    image.add_interpreter(interpreter, 0x800);
    return load_image(image);
  }
};

TEST_F(loading_with_an_interpreter, starts_in_the_interpreter) {
  const loaded application = load_with_interpreter();
  EXPECT_EQ(application.entry, application.aux.at_base + 0x1230);
  EXPECT_EQ(elf64_getehdr(application.elf)->e_entry, application.entry) << "the handle is the interpreter's";
}

TEST_F(loading_with_an_interpreter, keeps_the_applications_own_values) {
  const loaded application = load_with_interpreter();
  const std::uint64_t base = vm_reports.at(0).addr;
  EXPECT_EQ(application.aux.at_entry, base + 0x1230 + 1000);
  EXPECT_EQ(application.aux.at_phdr, base + sizeof(Elf64_Ehdr));
  EXPECT_EQ(application.aux.at_phnum, 3U);
}

TEST_F(loading_with_an_interpreter, reports_it_between_the_applications_reservation_and_segments) {
  const loaded application = load_with_interpreter(ET_EXEC);
  ASSERT_EQ(vm_reports.size(), 8U);
  std::vector<vm_report> expected = reports_of_two_segments(fixed, vm_reports[5].fd, VM_FLAG_APPLICATION);
  const std::vector<vm_report> interpreter =
      reports_of_two_segments(application.aux.at_base, vm_reports[2].fd, VM_FLAG_INTERPRETER);
  expected.insert(expected.begin() + 1, interpreter.begin(), interpreter.end());
  EXPECT_EQ(vm_reports, expected);
  EXPECT_NE(vm_reports[2].fd, vm_reports[5].fd);
}

TEST_F(loading_with_an_interpreter, does_not_move_the_break_for_it) {
  load_with_interpreter(ET_EXEC);
  EXPECT_EQ(engine.brk, fixed + 0x20000 + up(0x10 + data_memory))
      << "the application's end, wherever the interpreter is";
}

TEST_F(loading_with_an_interpreter, keeps_both_descriptors_open) {
  load_with_interpreter();
  char magic[SELFMAG];
  EXPECT_EQ(pread(vm_reports.at(2).fd, magic, SELFMAG, 0), SELFMAG);
  EXPECT_EQ(pread(vm_reports.at(5).fd, magic, SELFMAG, 0), SELFMAG);
}

TEST_F(loading_with_an_interpreter, ends_when_an_interpreter_names_itself) {
  const std::string path = folder / "application";
  elf_image image = two_segments(ET_DYN, 0);
  image.add_interpreter(path, 0x800);
  load_image(image);
  EXPECT_EQ(vm_reports.size(), 8U) << "the file once as the application and once as the interpreter";
}

TEST_F(loading_with_an_interpreter, takes_the_first_of_two) {
  elf_image image = two_segments(ET_DYN, 0);
  image.add_interpreter(folder.write("interpreter", two_segments(ET_DYN, 0).bytes()), 0x800);
  image.add_interpreter(folder / "missing", 0x900);
  load_image(image);
  EXPECT_EQ(vm_reports.size(), 8U);
}

TEST_F(loading_with_an_interpreter, of_a_path_without_a_terminator_ends_it) {
  const std::string path = folder.write("interpreter", two_segments(ET_DYN, 0).bytes());
  elf_image image = two_segments(ET_DYN, 0);
  image.place(0x800, path + "and other bytes");
  image.add_header(PT_INTERP, 0x800, path.size());
  EXPECT_NE(load_image(image).aux.at_base, 0U);
}

TEST_F(loading_with_an_interpreter, gives_no_base_for_one_without_program_headers) {
  elf_image image = two_segments(ET_DYN, 0);
  image.add_interpreter(folder.write("interpreter", elf_image(ET_DYN, 0x10).bytes()), 0x800);
  const loaded application = load_image(image);
  EXPECT_EQ(application.aux.at_base, 0U);
  EXPECT_EQ(application.entry, vm_reports.at(1).addr + 0x10);
}

// Odd files -------------------------------------------------------------------------------------------------------

TEST_F(loading, without_program_headers_clears_their_values_and_reserves_one_byte) {
  const loaded application = load_image(elf_image(ET_DYN, 0x10));
  ASSERT_EQ(vm_reports.size(), 1U);
  EXPECT_EQ(vm_reports[0].size, 1U);
  EXPECT_EQ(application.aux.at_phdr, 0U);
  EXPECT_EQ(application.aux.at_phnum, 0U);
  EXPECT_EQ(application.entry, vm_reports[0].addr + 0x10);
  EXPECT_EQ(application.aux.at_base, 0U);
}

TEST_F(loading, without_segments_counts_the_program_headers) {
  elf_image image(ET_DYN, 0x10);
  image.add_header(PT_NOTE, 0, 0);
  const loaded application = load_image(image);
  EXPECT_EQ(vm_reports.size(), 1U);
  EXPECT_EQ(application.aux.at_phdr, 0U);
  EXPECT_EQ(application.aux.at_phnum, 1U);
}

TEST_F(loading, without_a_segment_at_offset_0_gives_no_address_of_the_program_headers) {
  elf_image image(ET_DYN, 0x10);
  image.place(largest_page, "segment");
  image.add_segment(PF_R, largest_page, 0, 7, 7);
  EXPECT_EQ(load_image(image).aux.at_phdr, 0U);
}

TEST_F(loading, logs_every_program_header_at_level_trace) {
  elf_image image(ET_DYN, 0x10);
  Elf64_Phdr& note = image.add_header(PT_NOTE, 0x11, 0x14);
  note.p_vaddr = 0x12;
  note.p_paddr = 0x13;
  note.p_memsz = 0x15;
  note.p_flags = 6;
  note.p_align = 0x17;
  const std::string path = folder.write("application", image.bytes());
  const child_outcome outcome = run_in_child([&] {
    log_state::engine_log_level = LEVEL_TRACE;
    load(path);
  });
  std::string messages;
  std::istringstream lines(outcome.err);
  for (std::string line; std::getline(lines, line);) {
    const std::string header_end = " trace ";
    messages += line.substr(line.find(header_end) + header_end.size()) + "\n";
  }
  EXPECT_EQ(messages,
            "p_type: 0x4\np_offset: 0x11\np_vaddr: 0x12\np_paddr: 0x13\np_filesz: 0x14\np_memsz: 0x15\np_flags: 0x6\n"
            "p_align: 0x17\nunhandled program header table entry type\n");
}

// The process may have no room left, or the file system may not allow what a segment needs.
TEST_F(loading, takes_no_notice_of_a_segment_that_cannot_be_mapped) {
  const std::string path = folder.write("application", two_segments(ET_EXEC, fixed).bytes());
  const child_outcome outcome = run_in_child([&] {
    mmap_refusal = [](std::size_t, int, int flags) { return (flags & MAP_FIXED) != 0; };
    load(path);
  });
  EXPECT_EQ(outcome, (child_outcome{0, "", ""})) << "nothing is said, and nothing is cleared that isn't there";
}

TEST_F(loading, of_a_file_without_room_for_its_reservation_is_refused) {
  const std::string path = folder.write("application", two_segments(ET_EXEC, fixed).bytes());
  const child_outcome outcome = run_in_child([&] {
    mmap_refusal = [](std::size_t, int protection, int) { return protection == PROT_NONE; };
    load(path);
  });
  EXPECT_EQ(outcome, (child_outcome{1, "", "Error: couldn't reserve the addresses of file " + path + "\n"}));
}

TEST_F(loading, without_room_for_an_alignment_takes_what_there_is) {
  elf_image image = two_segments(ET_DYN, 0);
  image.program_headers[1].p_align = 0x4000000;
  mmap_refusal = [](std::size_t size, int, int) { return size >= 0x4000000; };
  load_image(image);
  expect_contents_of_two_segments(vm_reports.at(0).addr);
}

// Page sizes ------------------------------------------------------------------------------------------------------

class loading_on_pages_of : public loading, public ::testing::WithParamInterface<std::uint64_t> {};

INSTANTIATE_TEST_SUITE_P(sizes, loading_on_pages_of, ::testing::Values(0x1000, 0x4000, 0x10000));

class loading_on_larger_pages_of : public loading_on_pages_of {};

INSTANTIATE_TEST_SUITE_P(sizes, loading_on_larger_pages_of, ::testing::Values(0x4000, 0x10000));

TEST_P(loading_on_pages_of, maps_and_reports_whole_pages) {
  if (GetParam() < kernel_page_size()) GTEST_SKIP() << "the kernel's pages are larger";
  faked_page_size = GetParam();
  load_two_segments(ET_DYN);
  ASSERT_EQ(vm_reports.size(), 4U);
  EXPECT_EQ(vm_reports[1].size, (code_size + GetParam() - 1) / GetParam() * GetParam());
  EXPECT_EQ(vm_reports[2].size, GetParam());
  EXPECT_EQ(vm_reports[3].addr, vm_reports[2].addr + GetParam());
  EXPECT_EQ(vm_reports[3].addr + vm_reports[3].size, engine.brk);
  for (std::size_t index = 1; index < vm_reports.size(); ++index) {
    EXPECT_EQ(vm_reports[index].addr % 0x1000, 0U);
    EXPECT_EQ(vm_reports[index].size % GetParam(), 0U);
    EXPECT_EQ(vm_reports[index].offset % GetParam(), 0U);
  }
  EXPECT_EQ(memory_at(vm_reports[2].addr + 0x10, data_size), std::string(data_size, 'd'));
  const std::uint64_t tail = GetParam() - 0x10 - data_size;
  EXPECT_EQ(memory_at(vm_reports[2].addr + 0x10 + data_size, tail), std::string(tail, '\0'));
}

TEST_P(loading_on_larger_pages_of, refuses_a_file_that_was_linked_for_smaller_pages) {
  faked_page_size = GetParam();
  elf_image image(ET_DYN);
  image.place(0, std::string(0x4000, 's'));
  image.add_segment(PF_R, 0x1000, 0, 0x10, 0x10);
  const std::string path = folder.write("small_pages", image.bytes());
  EXPECT_EQ(run_in_child([&] { load(path); }),
            (child_outcome{1, "", "Error: incorrect binary format, program header 0 can't be mapped\n"}));
}

}  // namespace
}  // namespace ceilmeter::test
