// Random AArch64 programs, each run natively and under the engine; output, status and final registers are compared.
// See usage() for the ways to call it. Its own status is 0 only if every program ran and none differed.
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "bi/a64/a64.h"
#include "bi/a64/class_table.h"
#include "comparison.h"
#include "encodings.h"
#include "generator.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t WORDS_PER_ROW = 40;

struct options {
  std::string table;
  std::string probe;
  std::string keep;
  test_bed bed = {{}, {}, {}, 120};
  bool survey = false;
  bool quiet = false;
  std::vector<std::string> rest = {};
};

int usage() {
  std::fputs(
      "random_programs OPTIONS FIRST COUNT     seeds from FIRST on, COUNT of them\n"
      "random_programs OPTIONS case FILE...    programs as case files hold them\n"
      "  --table FILE      the table of encodings\n"
      "  --probe FILE      the program that tells which words the processor executes\n"
      "  --emulator WORDS  what runs AArch64 programs here, if anything is needed\n"
      "  --engine WORDS    what runs a program under the engine, an emulator included\n"
      "  --keep FOLDER     where the files of a program that differs go (default: the current folder)\n"
      "  --seconds N       a program that takes longer hangs (default: 120)\n"
      "  --survey          runs nothing, and counts the instructions of the programs by class\n"
      "  --write FOLDER    (with --survey) writes the programs there\n",
      stderr);
  return 2;
}

std::vector<std::string> split(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

bool parse(int argc, char** argv, options* result, std::string* write_to) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name.rfind("--", 0) != 0) {
      result->rest.push_back(name);
      continue;
    }
    if (name == "--survey") {
      result->survey = true;
      continue;
    }
    if (i + 1 == argc) return false;
    const std::string value = argv[++i];
    if (name == "--table") {
      result->table = value;
    } else if (name == "--probe") {
      result->probe = value;
    } else if (name == "--emulator") {
      result->bed.emulator = split(value);
    } else if (name == "--engine") {
      result->bed.engine = split(value);
    } else if (name == "--keep") {
      result->keep = value;
    } else if (name == "--write") {
      *write_to = value;
    } else if (name == "--seconds") {
      result->bed.seconds = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
    } else {
      return false;
    }
  }
  return result->rest.size() >= 2 && (result->survey || !result->bed.engine.empty());
}

bool read_file(const std::string& path, std::string* text) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  *text = bytes.str();
  return file.good() || file.eof();
}

bool write_file(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  return file.flush().good();
}

// The rows of the table that programs may hold, with words that this processor executes.
bool prepare(const options& chosen, encoding_set* set) {
  *set = read_encodings(chosen.table);
  if (set->rows.empty()) {
    std::fprintf(stderr, "random_programs: no encodings in '%s'\n", chosen.table.c_str());
    return false;
  }
  sample_words(*set, WORDS_PER_ROW);
  const std::vector<std::uint32_t> words = words_to_probe(*set);
  std::vector<std::string> command = chosen.bed.emulator;
  command.push_back(chosen.probe);
  const outcome told = run_process(
      command, std::string(reinterpret_cast<const char*>(words.data()), words.size() * sizeof words[0]), 300);
  if (!told.started || told.status != 0 || !keep_executable(*set, told.output)) {
    std::fprintf(stderr, "random_programs: the probe failed: %s %s\n", describe_end(told).c_str(),
                 told.messages.c_str());
    return false;
  }
  std::size_t rows = 0;
  for (const std::vector<std::uint32_t>& one : set->by_use) rows += one.size();
  std::printf("%zu of %zu encodings are executed here\n", rows, set->rows.size());
  return set->of(row_use::GENERAL).size() > 50 && set->of(row_use::VECTOR).size() > 100 &&
         set->of(row_use::FLOATING).size() > 50 && set->of(row_use::OFFSET_12).size() > 10;
}

// Shrinks a program that differs, reports it and keeps it.
void report(const options& chosen, const program& made, const comparison& found) {
  std::printf("seed %" PRIu64 " differs\n%s", made.seed, describe_difference(found, made.has_sve).c_str());
  std::fflush(stdout);
  unsigned runs = 0;
  const program least = shrink(chosen.bed, made, &runs);
  const comparison again = compare(chosen.bed, lay_out(least));
  const std::string difference = describe_difference(again, made.has_sve);
  std::printf("shrunk from %zu to %zu instructions in %u runs\n%s%s", count_words(made), count_words(least), runs,
              difference.c_str(), list_items(least).c_str());
  const std::string name = (chosen.keep.empty() ? "." : chosen.keep) + "/seed-" + std::to_string(made.seed);
  if (write_elf(lay_out(made), name + ".full") && write_elf(lay_out(least), name + ".shrunk") &&
      write_file(name + ".case", write_case(least, difference))) {
    std::printf("kept: %s.full, %s.shrunk, %s.case\n", name.c_str(), name.c_str(), name.c_str());
  } else {
    std::printf("could not be kept below '%s'\n", name.c_str());
  }
  std::fflush(stdout);
}

int run_seeds(const options& chosen, const encoding_set& set, std::uint64_t first, std::uint64_t count) {
  std::uint64_t differing = 0;
  std::uint64_t broken = 0;
  std::uint64_t words = 0;
  for (std::uint64_t seed = first; seed < first + count; ++seed) {
    const program made = generator(set, seed).make();
    words += count_words(made);
    const comparison result = compare(chosen.bed, lay_out(made));
    if (!result.valid) {
      ++broken;
      std::printf("seed %" PRIu64 ": the program is no good: natively %s, %zu bytes written\n", seed,
                  describe_end(result.native).c_str(), result.native.output.size());
      write_elf(lay_out(made), (chosen.keep.empty() ? "." : chosen.keep) + "/broken-" + std::to_string(seed));
    } else if (result.differs()) {
      ++differing;
      report(chosen, made, result);
    }
    if ((seed - first + 1) % 1000 == 0) {
      std::printf("%" PRIu64 " seeds run\n", seed - first + 1);
      std::fflush(stdout);
    }
  }
  std::printf("seeds %" PRIu64 " to %" PRIu64 ": %" PRIu64 " programs of %" PRIu64 " instructions, %" PRIu64
              " differ, %" PRIu64 " are no good\n",
              first, first + count - 1, count, words, differing, broken);
  return differing == 0 && broken == 0 && count > 0 ? 0 : 1;
}

int survey(const encoding_set& set, std::uint64_t first, std::uint64_t count, const std::string& write_to) {
  std::map<std::string, std::uint64_t> by_class;
  std::map<std::string, std::uint64_t> by_kind;
  std::size_t least = ~std::size_t{0};
  std::size_t most = 0;
  for (std::uint64_t seed = first; seed < first + count; ++seed) {
    const program made = generator(set, seed).make();
    const image laid_out = lay_out(made);
    if (!write_to.empty() && !write_elf(laid_out, write_to + "/seed-" + std::to_string(seed))) return 1;
    least = std::min(least, count_words(made));
    most = std::max(most, count_words(made));
    for (const function& one : made.functions) {
      for (const item& part : one.items) {
        if (part.fixed) continue;
        by_kind[part.kind] += 1;
        for (const std::uint32_t word : part.words) {
          const a64_instruction found = a64_decode(&word);
          by_class[found == A64_NOT_RECOGNISED ? "not_recognised" : a64_classes[found].name] += 1;
        }
      }
    }
  }
  std::printf("instructions: %zu to %zu\n", least, most);
  for (const auto& [kind, number] : by_kind) std::printf("item %s: %" PRIu64 "\n", kind.c_str(), number);
  for (const auto& [name, number] : by_class) std::printf("class %s: %" PRIu64 "\n", name.c_str(), number);
  return 0;
}

int run_cases(const options& chosen) {
  int failed = 0;
  for (std::size_t i = 1; i < chosen.rest.size(); ++i) {
    std::string text;
    image what;
    if (!read_file(chosen.rest[i], &text) || !read_case(text, &what)) {
      std::printf("%s: no case file\n", chosen.rest[i].c_str());
      ++failed;
      continue;
    }
    const comparison result = compare(chosen.bed, what);
    if (!result.valid) {
      std::printf("%s: natively %s\n", chosen.rest[i].c_str(), describe_end(result.native).c_str());
      ++failed;
    } else if (result.differs()) {
      std::printf("%s differs\n%s", chosen.rest[i].c_str(), describe_difference(result, what.has_sve).c_str());
      ++failed;
    }
  }
  std::printf("%zu cases, %d failed\n", chosen.rest.size() - 1, failed);
  return failed == 0 ? 0 : 1;
}

int run(const options& chosen, const std::string& write_to) {
  if (chosen.rest[0] == "case") return run_cases(chosen);
  const std::uint64_t first = std::strtoull(chosen.rest[0].c_str(), nullptr, 10);
  const std::uint64_t count = std::strtoull(chosen.rest[1].c_str(), nullptr, 10);
  encoding_set set;
  if (!prepare(chosen, &set)) return 1;
  return chosen.survey ? survey(set, first, count, write_to) : run_seeds(chosen, set, first, count);
}

}  // namespace

}  // namespace ceilmeter

int main(int argc, char** argv) {
  ceilmeter::options chosen;
  std::string write_to;
  if (!ceilmeter::parse(argc, argv, &chosen, &write_to)) return ceilmeter::usage();
  char scratch[] = "/tmp/random-programs-XXXXXX";
  if (mkdtemp(scratch) == nullptr) {
    std::perror("random_programs: mkdtemp");
    return 1;
  }
  chosen.bed.scratch = scratch;
  const int status = ceilmeter::run(chosen, write_to);
  std::error_code error;
  std::filesystem::remove_all(scratch, error);
  return status;
}
