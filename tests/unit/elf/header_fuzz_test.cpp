// Headers of real and of hand-made files, changed at random: each variant has to end in a message of the loader or
// arrive at the entry into the application. A signal, another status or a long wait is a failure that names its seed.
// Those that arrive are then run for real by the engine, which may end in any way but not hang where a native run
// doesn't. By default 2,000 variants, one in eight of which is run; with CEILMETER_LONG=1 10,000, and all are run.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>

#include "../support/scratch_folder.h"
#include "loader_fixture.h"

namespace ceilmeter::test {
namespace {

constexpr int entered_status = 42;
constexpr unsigned seconds_allowed = 10;  // Of the processor's time; most take a tenth of one.
constexpr std::uint64_t variants_per_batch = 250;
constexpr std::uint64_t default_batches = 4;
constexpr std::uint64_t long_batches = 40;

// Where fields begin and how wide they are, in the header and in a program header.
struct field {
  std::size_t offset;
  std::size_t size;
};

constexpr field type_field = {16, 2};
constexpr field header_fields[] = {{EI_CLASS, 1}, {EI_DATA, 1}, {EI_VERSION, 1}, {16, 2}, {18, 2}, {20, 4},
                                   {24, 8},       {32, 8},      {40, 8},         {48, 4}, {52, 2}, {54, 2},
                                   {56, 2},       {58, 2},      {60, 2},         {62, 2}};
constexpr field program_header_fields[] = {{0, 4}, {4, 4}, {8, 8}, {16, 8}, {24, 8}, {32, 8}, {40, 8}, {48, 8}};

class variant_maker {
 public:
  explicit variant_maker(std::uint64_t seed) : m_random(seed) {}

  // Changes one to four fields of the headers that `file` begins with.
  void change(std::string& file) {
    const auto headers = static_cast<std::size_t>(static_cast<std::uint8_t>(file[56]));
    const std::uint64_t changes = 1 + below(4);
    for (std::uint64_t index = 0; index < changes; ++index) {
      if (headers == 0 || below(4) == 0) {
        change_field(file, 0, header_fields[below(std::size(header_fields))]);
      } else {
        const std::size_t place = sizeof(Elf64_Ehdr) + below(headers) * sizeof(Elf64_Phdr);
        change_field(file, place, program_header_fields[below(std::size(program_header_fields))]);
      }
    }
  }

  std::uint64_t below(std::uint64_t limit) { return m_random() % limit; }

 private:
  void change_field(std::string& file, std::size_t place, const field& changed) {
    std::uint64_t old = 0;
    std::memcpy(&old, file.data() + place + changed.offset, changed.size);
    const std::uint64_t value = new_value(old);
    std::memcpy(file.data() + place + changed.offset, &value, changed.size);
  }

  std::uint64_t new_value(std::uint64_t old) {
    switch (below(10)) {
      case 0: return 0;
      case 1: return ~std::uint64_t{0};
      case 2: return below(8);
      case 3: return old + below(3) - 1;
      case 4: return old ^ std::uint64_t{1} << below(64);
      case 5: return old + (below(33) - 16) * kernel_page_size();
      case 6: return below(0x200000);
      case 7: return std::uint64_t{1} << below(64);
      // The test's own memory.
      case 8: return reinterpret_cast<std::uint64_t>(&header_fields) + below(0x20000) - 0x10000;
      default: return m_random();
    }
  }

  std::mt19937_64 m_random;
};

bool is_long_run() { return std::getenv("CEILMETER_LONG") != nullptr; }

class fuzzed_files : public ::testing::Test {
 protected:
  void SetUp() override {
    elf_image interpreter(ET_DYN, 0x1000);
    interpreter.place(0x1000, "code");
    interpreter.add_segment(PF_R | PF_X, 0, 0, 0x1004, 0x1004);
    m_files.push_back({"interpreter", interpreter.bytes()});
    const std::string path = m_folder.write("an_interpreter", interpreter.bytes());
    for (const std::uint16_t type : {ET_DYN, ET_EXEC}) {
      const std::uint64_t base = type == ET_EXEC ? 0x1000000 : 0;
      elf_image image(type, base + 0x1000);
      image.place(0x1000, "code");
      image.place(0x10010, std::string(0x100, 'd'));
      image.add_segment(PF_R | PF_X, 0, base, 0x1004, 0x1004);
      image.add_segment(PF_R | PF_W, 0x10010, base + 0x20010, 0x100, 0x20000);
      image.add_interpreter(path, 0x800);
      m_files.push_back({"hand-made " + std::to_string(type), image.bytes()});
    }
    for (const char* name : {"loaded_static", "loaded_fixed", "loaded_pie", "loaded_static_pie"}) {
      std::ifstream stream(beside_the_test(name), std::ios::binary);
      m_files.push_back({name, {std::istreambuf_iterator<char>(stream), {}}});
      ASSERT_GT(m_files.back().content.size(), sizeof(Elf64_Ehdr)) << name;
    }
    for (const fuzzed& file : m_files) {
      std::filesystem::permissions(m_folder.write(file.name, file.content), std::filesystem::perms{0755});
    }
  }

  struct fuzzed {
    std::string name;
    std::string content;
  };

  // What loading the variant in a child of this process leaves.
  static child_outcome outcome_of_loading(const std::string& path) {
    return run_in_child(
        [&] {
          // The emulator keeps a record of every page, even of one that is only reserved.
          mmap_refusal = [](std::size_t size, int, int) { return size > std::size_t{1} << 32; };
          on_enter = [](std::uint64_t, std::uint64_t) { _exit(entered_status); };
          const loaded application = load(path);
          elf_run(application.entry, path.c_str(), 0, nullptr, environ, &application.aux);
        },
        seconds_allowed);
  }

  static child_outcome outcome_under_the_engine(const std::string& path) {
    return run_natively({beside_the_test("../../programs/mora_run"), path}, {}, seconds_allowed);
  }

  // Whether the engine ends where a native run does. The kernel runs two types of files alone, so that natively the
  // variant has the type of the file that it was made of.
  static bool ends_under_the_engine(const std::string& path, const std::string& original) {
    if (!outcome_under_the_engine(path).timed_out) return true;
    overwrite(path, original.substr(type_field.offset, type_field.size), type_field.offset);
    return run_natively({path}, {}, seconds_allowed).timed_out;
  }

  static void overwrite_headers(const std::string& path, const std::string& content) {
    overwrite(path, content.substr(0, 0x800), 0);
  }

  static void overwrite(const std::string& path, const std::string& content, std::size_t offset) {
    const int fd = open(path.c_str(), O_WRONLY);
    EXPECT_EQ(pwrite(fd, content.data(), content.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(content.size()));
    close(fd);
  }

  static bool is_a_message(const child_outcome& outcome) {
    const bool is_one_line =
        std::count(outcome.err.begin(), outcome.err.end(), '\n') == 1 && outcome.err.back() == '\n';
    return outcome.status == 1 && is_one_line &&
           (outcome.err.starts_with("Error") || outcome.err.starts_with("Failed reading INTERP string"));
  }

  scratch_folder m_folder;
  std::vector<fuzzed> m_files;
};

class header_fuzz : public fuzzed_files, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  void SetUp() override {
    if (GetParam() >= default_batches && !is_long_run()) GTEST_SKIP() << "runs with CEILMETER_LONG=1";
    fuzzed_files::SetUp();
  }
};

TEST_F(fuzzed_files, are_programs_that_the_engine_runs_as_long_as_nothing_is_changed) {
  for (const fuzzed& file : m_files) {
    if (!file.name.starts_with("loaded")) continue;
    EXPECT_EQ(outcome_under_the_engine(m_folder / file.name).status, 7) << file.name;
  }
}

INSTANTIATE_TEST_SUITE_P(batches, header_fuzz, ::testing::Range(std::uint64_t{0}, long_batches));

TEST_P(header_fuzz, ends_in_a_message_or_in_the_application) {
  std::map<std::string, int> outcomes;
  for (std::uint64_t index = 0; index < variants_per_batch; ++index) {
    const std::uint64_t seed = GetParam() * variants_per_batch + index;
    variant_maker maker(seed);
    const fuzzed& file = m_files[maker.below(m_files.size())];
    std::string variant = file.content;
    maker.change(variant);
    const std::string path = m_folder / file.name;
    overwrite_headers(path, variant);
    const child_outcome outcome = outcome_of_loading(path);
    if (outcome.status == entered_status && outcome.err.empty()) {
      ++outcomes["entered"];
      const bool is_run = is_long_run() || seed % 8 == 0;
      EXPECT_TRUE(!is_run || ends_under_the_engine(path, file.content))
          << "seed " << seed << ", " << file.name << " hangs";
    } else {
      EXPECT_TRUE(is_a_message(outcome)) << "seed " << seed << ", " << file.name << ", "
                                         << ::testing::PrintToString(outcome);
      ++outcomes[outcome.err.substr(0, 40)];
    }
    overwrite_headers(path, file.content);
  }
  for (const auto& [text, count] : outcomes) std::printf("%5d %s\n", count, text.c_str());
  // A batch in which all variants end alike tests nothing.
  EXPECT_GT(outcomes["entered"], 12);
  EXPECT_LT(outcomes["entered"], 238);
}

}  // namespace
}  // namespace ceilmeter::test
