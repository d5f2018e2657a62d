// Real executables of every kind, loaded into a child of this test and really started there: what they print and their
// status are compared with a native run. The one difference to the tool is that their code runs where it was loaded.
#include <unistd.h>

#include "loader_fixture.h"

namespace ceilmeter::test {
namespace {

struct program_kind {
  const char* name;
  std::uint16_t type;
  bool has_interpreter;
};

void PrintTo(const program_kind& kind, std::ostream* stream) { *stream << kind.name; }

class loaded_program : public loader_fixture, public ::testing::WithParamInterface<program_kind> {
 protected:
  static std::string path() { return beside_the_test(GetParam().name); }

  // Loads and starts the program in a child, with the environment in front of this process's auxiliary vector.
  static child_outcome run_loaded(const std::vector<std::string>& arguments,
                                  const std::vector<std::string>& environment) {
    std::vector<char*> argv = pointers_to(arguments);
    std::vector<char*> envp = pointers_to(environment);
    char** end = environ;
    while (*end != nullptr) ++end;
    for (++end; end[0] != nullptr; end += 2) envp.insert(envp.end(), {end[0], end[1]});
    envp.insert(envp.end(), {nullptr, nullptr});
    return run_in_child([&] {
      const loaded program = load(path());
      on_enter = run_in_place;
      elf_run(program.entry, path().c_str(), static_cast<int>(arguments.size()), argv.data(), envp.data(),
              &program.aux);
    });
  }

  static child_outcome run_native(std::vector<std::string> arguments, const std::vector<std::string>& environment) {
    arguments.insert(arguments.begin(), path());
    return run_natively(std::move(arguments), environment);
  }
};

INSTANTIATE_TEST_SUITE_P(kinds, loaded_program,
                         ::testing::Values(program_kind{"loaded_static", ET_EXEC, false},
                                           program_kind{"loaded_fixed", ET_EXEC, true},
                                           program_kind{"loaded_pie", ET_DYN, true},
                                           program_kind{"loaded_static_pie", ET_DYN, false}),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(loaded_program, runs_as_it_does_natively) {
  const std::vector<std::string> arguments = {"first", "", "third argument"};
  const std::vector<std::string> environment = {"HOME=/nowhere", "EMPTY=", "LANG=C"};
  const child_outcome outcome = run_loaded(arguments, environment);
  EXPECT_EQ(outcome.status, 7) << ::testing::PrintToString(outcome);
  EXPECT_EQ(outcome, run_native(arguments, environment));
}

TEST_P(loaded_program, runs_without_arguments_and_environment) {
  const child_outcome outcome = run_loaded({}, {});
  EXPECT_EQ(outcome.status, 7) << ::testing::PrintToString(outcome);
  EXPECT_EQ(outcome, run_native({}, {}));
}

TEST_P(loaded_program, takes_4000_arguments_and_a_megabyte_of_environment) {
  std::vector<std::string> arguments;
  for (int index = 0; index < 4000; ++index) arguments.push_back("argument " + std::to_string(index));
  std::vector<std::string> environment;
  for (int index = 0; index < 16; ++index) {
    environment.push_back("VARIABLE_" + std::to_string(index) + "=" +
                          std::string(65536, static_cast<char>('a' + index)));
  }
  const child_outcome outcome = run_loaded(arguments, environment);
  EXPECT_EQ(outcome.status, 7) << ::testing::PrintToString(outcome);
  EXPECT_EQ(outcome, run_native(arguments, environment));
}

TEST_P(loaded_program, gives_the_values_of_its_file) {
  std::ifstream file(path(), std::ios::binary);
  Elf64_Ehdr header{};
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  ASSERT_TRUE(file);
  ASSERT_EQ(header.e_type, GetParam().type) << "the build made another kind of executable";

  const loaded program = load(path());
  const std::uint64_t base = GetParam().type == ET_DYN ? program.aux.at_entry - header.e_entry : 0;
  EXPECT_EQ(program.aux.at_entry, base + header.e_entry);
  EXPECT_EQ(program.aux.at_phnum, header.e_phnum);
  EXPECT_EQ(memory_at(program.aux.at_phdr, sizeof(Elf64_Phdr)), [&] {
    std::string first(sizeof(Elf64_Phdr), '\0');
    file.seekg(static_cast<std::streamoff>(header.e_phoff));
    file.read(first.data(), static_cast<std::streamsize>(first.size()));
    return first;
  }());
  if (GetParam().has_interpreter) {
    EXPECT_EQ(memory_at(program.aux.at_base, SELFMAG), ELFMAG);
    EXPECT_NE(program.entry, program.aux.at_entry);
    EXPECT_EQ(program.entry, elf64_getehdr(program.elf)->e_entry) << "the handle is the interpreter's";
  } else {
    EXPECT_EQ(program.aux.at_base, 0U);
    EXPECT_EQ(program.entry, program.aux.at_entry);
  }
}

}  // namespace
}  // namespace ceilmeter::test
