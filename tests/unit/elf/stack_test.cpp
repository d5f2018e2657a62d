// The application's first stack, word by word.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <deque>

#include "loader_fixture.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t stack_size = 0x4000000;
constexpr std::uint64_t copied_types[] = {4, 6, 8, 11, 12, 13, 14, 16, 17, 23, 26, 27, 28, 29, 30, 33, 51};
constexpr elf_aux_values image_values{0xba5e, 0xe1717, 0x9d4, 0x17};
constexpr char random_bytes[] = "sixteen bytes...";

// The tool's environment and auxiliary vector as the kernel lays them out: the former's null, then pairs.
class process_vectors {
 public:
  void add_variable(const std::string& variable) {
    m_strings.push_back(variable);
    m_environment.push_back(m_strings.back().data());
  }
  void add_auxiliary(std::uint64_t type, std::uint64_t value) {
    m_auxiliary.push_back(type);
    m_auxiliary.push_back(value);
  }
  void add_auxiliary_string(std::uint64_t type, const std::string& string) {
    m_strings.push_back(string);
    add_auxiliary(type, reinterpret_cast<std::uint64_t>(m_strings.back().data()));
  }

  // Valid until the next addition.
  char** envp() {
    m_words.clear();
    for (char* variable : m_environment) m_words.push_back(reinterpret_cast<std::uint64_t>(variable));
    m_words.push_back(0);
    m_words.insert(m_words.end(), m_auxiliary.begin(), m_auxiliary.end());
    m_words.insert(m_words.end(), {0, 0});
    return reinterpret_cast<char**>(m_words.data());
  }

 private:
  std::deque<std::string> m_strings;
  std::vector<char*> m_environment;
  std::vector<std::uint64_t> m_auxiliary;
  std::vector<std::uint64_t> m_words;
};

// A finished stack as the application's start-up code would read it.
struct parsed_stack {
  std::uint64_t sp = 0;
  std::uint64_t top = 0;
  std::uint64_t count = 0;
  std::vector<std::uint64_t> arguments;
  std::vector<std::uint64_t> environment;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> auxiliary;  // Without the terminator.
  std::uint64_t words_end = 0;
  std::uint64_t final_value = 1;
};

std::string string_at(std::uint64_t address) { return reinterpret_cast<const char*>(address); }

std::vector<std::string> strings_at(const std::vector<std::uint64_t>& addresses) {
  std::vector<std::string> strings;
  for (const std::uint64_t address : addresses) strings.push_back(string_at(address));
  return strings;
}

class application_stack : public loader_fixture {
 protected:
  process_vectors vectors;

  parsed_stack build(const std::string& path, const std::vector<std::string>& arguments) {
    vm_reports.clear();
    std::vector<char*> argv = pointers_to(arguments);
    const application_entry entry = entry_of_elf_run(0xb10c, path.c_str(), static_cast<int>(arguments.size()),
                                                     argv.data(), vectors.envp(), image_values);
    EXPECT_EQ(entry.block, 0xb10cU);
    parsed_stack stack;
    stack.sp = entry.sp;
    stack.top = vm_reports.at(0).addr + vm_reports.at(0).size;
    const auto* word = reinterpret_cast<const std::uint64_t*>(entry.sp);
    stack.count = *word++;
    while (*word != 0) stack.arguments.push_back(*word++);
    ++word;
    while (*word != 0) stack.environment.push_back(*word++);
    ++word;
    for (; *word != 0; word += 2) stack.auxiliary.emplace_back(word[0], word[1]);
    stack.final_value = word[1];
    stack.words_end = reinterpret_cast<std::uint64_t>(word + 2);
    return stack;
  }

  void add_every_auxiliary_type() {
    vectors.add_auxiliary(AT_PHDR, 0x101);
    vectors.add_auxiliary(AT_PHNUM, 0x102);
    vectors.add_auxiliary(AT_BASE, 0x103);
    vectors.add_auxiliary(AT_ENTRY, 0x104);
    for (const std::uint64_t type : copied_types) vectors.add_auxiliary(type, 0x1000 + type);
    vectors.add_auxiliary_string(AT_PLATFORM, "aarch64");
    vectors.add_auxiliary_string(AT_EXECFN, "/usr/bin/tool");
    vectors.add_auxiliary(AT_RANDOM, reinterpret_cast<std::uint64_t>(random_bytes));
  }
};

TEST_F(application_stack, is_64_mebibytes_that_are_reported) {
  build("/app", {});
  ASSERT_EQ(vm_reports.size(), 1U);
  EXPECT_EQ(vm_reports[0], (vm_report{0, vm_reports[0].addr, stack_size, 3, 0x20122, -1, 0, 0, 0}));
}

TEST_F(application_stack, has_room_for_what_the_limit_allows) {
  stack_limit = 5 * stack_size + 1;
  build("/app", {});
  EXPECT_EQ(vm_reports.at(0).size, 5 * stack_size);
}

TEST_F(application_stack, without_a_limit_has_room_for_all_of_the_memory) {
  const std::uint64_t memory = static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES)) * kernel_page_size();
  stack_limit = RLIM_INFINITY;
  build("/app", {});
  EXPECT_EQ(vm_reports.at(0).size, memory);
  auto* lowest = reinterpret_cast<volatile char*>(vm_reports.at(0).addr);
  *lowest = 1;
  EXPECT_EQ(*lowest, 1);
}

TEST_F(application_stack, is_halved_until_the_kernel_grants_it) {
  stack_limit = 5 * stack_size;
  mmap_refusal = [](std::size_t size, int, int) { return size > 2 * stack_size; };
  build("/app", {});
  EXPECT_EQ(vm_reports.at(0).size, 5 * stack_size / 4);
}

TEST_F(application_stack, counts_the_path_as_an_argument) {
  EXPECT_EQ(build("/app", {"one", "two"}).count, 3U);
  EXPECT_EQ(build("/app", {}).count, 1U);
}

TEST_F(application_stack, begins_with_the_path_and_the_arguments_in_order) {
  const std::vector<std::string> expected = {"/path/of/app", "one", "", "three words in one"};
  EXPECT_EQ(strings_at(build(expected[0], {expected.begin() + 1, expected.end()}).arguments), expected);
}

TEST_F(application_stack, has_the_environment_behind_the_arguments) {
  vectors.add_variable("A=1");
  vectors.add_variable("EMPTY=");
  vectors.add_variable("Z=last");
  EXPECT_EQ(strings_at(build("/app", {"x"}).environment), (std::vector<std::string>{"A=1", "EMPTY=", "Z=last"}));
}

TEST_F(application_stack, has_no_words_but_those_of_the_layout) {
  vectors.add_variable("A=1");
  vectors.add_auxiliary(AT_PAGESZ, 4096);
  const parsed_stack stack = build("/app", {"x", "y"});
  const auto* words = reinterpret_cast<const std::uint64_t*>(stack.sp);
  std::vector<std::uint64_t> expected = {3, stack.arguments.at(0), stack.arguments.at(1), stack.arguments.at(2), 0};
  expected.insert(expected.end(), {stack.environment.at(0), 0});
  expected.insert(expected.end(), {AT_PAGESZ, 4096, 0, 0});
  EXPECT_EQ(std::vector<std::uint64_t>(words, words + expected.size()), expected);
}

TEST_F(application_stack, keeps_the_auxiliary_vector_in_order_with_the_images_own_values) {
  add_every_auxiliary_type();
  const parsed_stack stack = build("/app", {});
  std::vector<std::pair<std::uint64_t, std::uint64_t>> expected = {
      {AT_PHDR, image_values.at_phdr},
      {AT_PHNUM, image_values.at_phnum},
      {AT_BASE, image_values.at_base},
      {AT_ENTRY, image_values.at_entry},
  };
  for (const std::uint64_t type : copied_types) expected.emplace_back(type, 0x1000 + type);
  ASSERT_EQ(stack.auxiliary.size(), expected.size() + 3);
  for (const std::uint64_t type : {AT_PLATFORM, AT_EXECFN, AT_RANDOM}) {
    expected.emplace_back(type, stack.auxiliary[expected.size()].second);  // Their contents: the next tests.
  }
  EXPECT_EQ(stack.auxiliary, expected);
  EXPECT_EQ(stack.final_value, 0U);
}

TEST_F(application_stack, has_copies_of_the_platform_and_the_file_name) {
  add_every_auxiliary_type();
  const parsed_stack stack = build("/app", {});
  const std::size_t count = stack.auxiliary.size();
  EXPECT_EQ(string_at(stack.auxiliary.at(count - 3).second), "aarch64");
  EXPECT_EQ(string_at(stack.auxiliary.at(count - 2).second), "/app") << "the application's file, not the tool's";
  for (const std::size_t index : {count - 3, count - 2}) {
    EXPECT_GT(stack.auxiliary[index].second, stack.words_end);
    EXPECT_LT(stack.auxiliary[index].second, stack.top);
  }
}

TEST_F(application_stack, has_a_copy_of_the_random_bytes) {
  add_every_auxiliary_type();
  const parsed_stack stack = build("/app", {});
  const std::uint64_t address = stack.auxiliary.back().second;
  EXPECT_EQ(memory_at(address, 16), std::string(random_bytes, 16));
  EXPECT_EQ(address + 16, stack.top);
}

// Programs that write their title over the arguments rely on it.
TEST_F(application_stack, has_the_strings_in_order_without_gaps) {
  vectors.add_variable("A=1");
  vectors.add_variable("B=22");
  add_every_auxiliary_type();
  const parsed_stack stack = build("/app", {"one", "", "three"});
  std::vector<std::uint64_t> addresses = stack.arguments;
  addresses.insert(addresses.end(), stack.environment.begin(), stack.environment.end());
  for (const auto& [type, value] : stack.auxiliary) {
    if (type == AT_PLATFORM || type == AT_EXECFN) addresses.push_back(value);
  }
  std::uint64_t next = addresses.at(0);
  for (const std::uint64_t address : addresses) {
    EXPECT_EQ(address, next) << string_at(address);
    next = address + string_at(address).size() + 1;
  }
  EXPECT_EQ(next, stack.auxiliary.back().second);
}

TEST_F(application_stack, is_what_the_kernel_is_to_show) {
  vectors.add_variable("A=1");
  vectors.add_variable("B=22");
  add_every_auxiliary_type();
  const parsed_stack stack = build("/path/of/app", {"one", "two"});
  EXPECT_STREQ(last_shown.path, "/path/of/app");
  EXPECT_EQ(last_shown.stack, stack.sp);
  EXPECT_EQ(last_shown.arguments, stack.arguments.at(0));
  EXPECT_EQ(last_shown.environment, stack.environment.at(0));
  EXPECT_EQ(last_shown.environment_end, stack.environment.at(1) + 5);
  const auto* vector = reinterpret_cast<const std::uint64_t*>(last_shown.vector);
  EXPECT_EQ(vector[0], stack.auxiliary.at(0).first);
  EXPECT_EQ(last_shown.vector_size, (stack.auxiliary.size() + 1) * 16);
  EXPECT_EQ(last_shown.vector + last_shown.vector_size, stack.words_end);
}

TEST_F(application_stack, without_an_environment_shows_none) {
  const parsed_stack stack = build("/app", {});
  EXPECT_EQ(last_shown.environment, stack.arguments.at(0) + 5);
  EXPECT_EQ(last_shown.environment_end, last_shown.environment);
}

TEST_F(application_stack, takes_the_bytes_it_needs_and_no_more_than_the_alignment_costs) {
  for (std::size_t length = 0; length < 40; ++length) {
    process_vectors fresh;
    vectors = fresh;
    vectors.add_variable("A=1");
    add_every_auxiliary_type();
    const parsed_stack stack = build("/" + std::string(length, 'p'), {"one", "two"});
    const std::uint64_t lowest_string = stack.arguments.at(0);
    EXPECT_EQ(stack.sp % 16, 0U) << "path of " << length + 1;
    EXPECT_LE(stack.words_end, lowest_string) << "path of " << length + 1;
    EXPECT_LT(lowest_string - stack.words_end, 16U) << "path of " << length + 1;
  }
}

TEST_F(application_stack, is_aligned_for_every_count_of_arguments) {
  std::vector<std::string> arguments;
  for (int count = 0; count < 20; ++count) {
    const parsed_stack stack = build("/app", arguments);
    const std::uint64_t lowest_string = stack.arguments.at(0);
    EXPECT_EQ(stack.sp % 16, 0U) << count;
    EXPECT_GE(lowest_string, stack.words_end) << count;
    EXPECT_LT(lowest_string - stack.words_end, 16U) << count;
    arguments.push_back(std::string(static_cast<std::size_t>(count), 'a'));
  }
}

TEST_F(application_stack, takes_4000_arguments_and_a_megabyte_of_environment) {
  std::vector<std::string> arguments;
  for (int index = 0; index < 4000; ++index) arguments.push_back(std::to_string(index));
  std::vector<std::string> environment;
  for (int index = 0; index < 1024; ++index) {
    environment.push_back("V" + std::to_string(index) + "=" + std::string(1024, 'v'));
    vectors.add_variable(environment.back());
  }
  add_every_auxiliary_type();
  const parsed_stack stack = build("/app", arguments);
  std::vector<std::string> expected = arguments;
  expected.insert(expected.begin(), "/app");
  EXPECT_EQ(stack.count, 4001U);
  EXPECT_EQ(strings_at(stack.arguments), expected);
  EXPECT_EQ(strings_at(stack.environment), environment);
  EXPECT_EQ(stack.sp % 16, 0U);
  EXPECT_LT(stack.arguments.at(0) - stack.words_end, 16U);
}

TEST_F(application_stack, can_be_written_down_to_its_last_byte) {
  build("/app", {});
  auto* lowest = reinterpret_cast<volatile char*>(vm_reports.at(0).addr);
  *lowest = 1;
  EXPECT_EQ(*lowest, 1);
}

TEST_F(application_stack, does_not_tell_of_shadow_call_stacks) {
  vectors.add_auxiliary(AT_HWCAP, 0x3ffffffff);
  EXPECT_EQ(build("/app", {}).auxiliary.at(0), (std::pair<std::uint64_t, std::uint64_t>{AT_HWCAP, 0x2ffffffff}));
}

// Types that must not be passed to the application as they are: unknown to this table, or meant for the tool alone.
TEST_F(application_stack, is_not_built_from_an_unknown_auxiliary_type) {
  for (const std::uint64_t type : {1, 2, 10, 15 + 3, 19, 20, 21, 22, 24, 32, 34, 40, 47, 50, 52, 1000}) {
    process_vectors fresh;
    vectors = fresh;
    vectors.add_auxiliary(type, 0);
    const child_outcome outcome = run_in_child([&] { build("/app", {}); });
    EXPECT_EQ(outcome.status, 128 + SIGABRT) << type;
    const std::string line = "MORA fatal unhandled auxv entry type: " + std::to_string(type) + "\n";
    EXPECT_NE(outcome.err.find(line), std::string::npos) << outcome.err;
  }
}

TEST_F(application_stack, accepts_this_systems_own_auxiliary_vector) {
  char** end = environ;
  while (*end != nullptr) ++end;
  std::vector<std::uint64_t> types;
  for (const auto* entry = reinterpret_cast<const Elf64_auxv_t*>(end + 1); entry->a_type != AT_NULL; ++entry) {
    types.push_back(entry->a_type);
  }
  ASSERT_FALSE(types.empty());
  const application_entry entry = entry_of_elf_run(1, "/app", 0, nullptr, environ, image_values);
  const auto* word = reinterpret_cast<const std::uint64_t*>(entry.sp) + 3;
  while (*word++ != 0) continue;
  for (const std::uint64_t type : types) {
    EXPECT_EQ(*word, type);
    word += 2;
  }
  EXPECT_EQ(*word, 0U);
}

TEST_F(application_stack, is_never_returned_to) {
  const child_outcome outcome = run_in_child([&] {
    on_enter = [](std::uint64_t, std::uint64_t) {};
    elf_run(1, "/app", 0, nullptr, vectors.envp(), &image_values);
  });
  EXPECT_EQ(outcome.status, 128 + SIGABRT);
  EXPECT_NE(outcome.err.find("MORA fatal unexpected return from elf_run\n"), std::string::npos) << outcome.err;
}

TEST_F(application_stack, that_cannot_be_mapped_is_told) {
  const child_outcome outcome = run_in_child([&] {
    on_enter = [](std::uint64_t, std::uint64_t) { _exit(3); };
    mmap_refusal = [](std::size_t size, int, int) { return size == stack_size; };
    elf_run(1, "/app", 0, nullptr, vectors.envp(), &image_values);
  });
  EXPECT_EQ(outcome, (child_outcome{1, "", "Error: couldn't map the application's stack\n"}));
}

}  // namespace
}  // namespace ceilmeter::test
