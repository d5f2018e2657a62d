// Shrinking is a bisection over the items. Ever smaller runs of items are replaced by NOPs as long as the two
// executions still differ, first with all addresses kept, then with the NOPs left out. A program that natively no
// longer ends as it should is rejected, so the bisection needs to know nothing of what items require of each other.
#include "comparison.h"

#include <sys/wait.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "bi/a64/a64.h"
#include "bi/a64/class_table.h"

namespace ceilmeter {

namespace {

constexpr unsigned SHRINKING_SECONDS = 10;  // For what natively takes milliseconds.
constexpr unsigned MOST_SHRINKING_RUNS = 3'000;

__attribute__((format(printf, 1, 2))) std::string format(const char* text, ...) {
  char line[256];
  va_list values;
  va_start(values, text);
  std::vsnprintf(line, sizeof line, text, values);
  va_end(values);
  return line;
}

std::uint64_t number_at(const std::string& record, std::size_t place) {
  std::uint64_t number = 0;
  std::memcpy(&number, record.data() + place, sizeof number);
  return number;
}

void describe_number(const char* name, const std::string& native, const std::string& engine, std::size_t place,
                     std::string* to) {
  const std::uint64_t first = number_at(native, place);
  const std::uint64_t second = number_at(engine, place);
  if (first != second) *to += format("  %s: natively 0x%" PRIx64 ", engine 0x%" PRIx64 "\n", name, first, second);
}

std::string class_name(std::uint32_t word) {
  const a64_instruction found = a64_decode(&word);
  return found == A64_NOT_RECOGNISED ? "(not recognised)" : a64_classes[found].name;
}

class shrinker {
 public:
  shrinker(const test_bed& bed, program* made) : bed_(bed), made_(made) {
    bed_.seconds = std::min(bed_.seconds, SHRINKING_SECONDS);
  }

  void run() {
    change(item_state::KEPT, item_state::BLANK);
    change(item_state::BLANK, item_state::GONE);
    // With other addresses, more items may turn out to be dispensable.
    while (change(item_state::KEPT, item_state::GONE)) {
    }
  }

  unsigned runs() const { return runs_; }

 private:
  // Changes as many items as it can from one state to the other. True if it changed any.
  bool change(item_state from, item_state to) {
    bool changed = false;
    std::size_t length = items_in(from).size();
    while (length > 0) {
      const std::vector<item*> items = items_in(from);
      for (std::size_t i = 0; i < items.size(); i += length) {
        const std::size_t end = std::min(items.size(), i + length);
        for (std::size_t j = i; j < end; ++j) items[j]->state = to;
        if (still_differs()) {
          changed = true;
        } else {
          for (std::size_t j = i; j < end; ++j) items[j]->state = from;
        }
      }
      length /= 2;
    }
    return changed;
  }

  std::vector<item*> items_in(item_state state) {
    std::vector<item*> found;
    for (function& one : made_->functions) {
      for (item& part : one.items) {
        if (!part.fixed && part.state == state) found.push_back(&part);
      }
    }
    return found;
  }

  bool still_differs() {
    if (runs_ >= MOST_SHRINKING_RUNS) return false;
    ++runs_;
    return compare(bed_, lay_out(*made_)).differs();
  }

  test_bed bed_;
  program* made_;
  unsigned runs_ = 0;
};

}  // namespace

comparison compare(const test_bed& bed, const image& what) {
  comparison result = {};
  const std::string path = bed.scratch + "/program";
  if (!write_elf(what, path)) return result;
  std::vector<std::string> command = bed.emulator;
  command.push_back(path);
  result.native = run_process(command, "", bed.seconds);
  const std::size_t size = what.has_sve ? RESULT_SIZE_SVE : RESULT_SIZE;
  result.valid = result.native.started && !result.native.timed_out && WIFEXITED(result.native.status) &&
                 result.native.output.size() >= size;
  if (!result.valid) return result;
  command = bed.engine;
  command.push_back(path);
  result.engine = run_process(command, "", bed.seconds);
  return result;
}

std::string describe_difference(const comparison& result, bool has_sve) {
  std::string text;
  if (result.native.status != result.engine.status || result.native.timed_out != result.engine.timed_out) {
    text += "  natively " + describe_end(result.native) + ", engine: " + describe_end(result.engine) + "\n";
  }
  const std::size_t size = has_sve ? RESULT_SIZE_SVE : RESULT_SIZE;
  const std::string& native_output = result.native.output;
  const std::string& engine_output = result.engine.output;
  if (native_output.size() != engine_output.size()) {
    text += format("  output: natively %zu bytes, engine %zu\n", native_output.size(), engine_output.size());
  }
  if (native_output.size() >= size && engine_output.size() >= size) {
    const std::string native = native_output.substr(native_output.size() - size);
    const std::string engine = engine_output.substr(engine_output.size() - size);
    for (std::size_t reg = 0; reg < 31; ++reg) {
      describe_number(format("x%zu", reg).c_str(), native, engine, reg * 8, &text);
    }
    describe_number("sp", native, engine, RESULT_SP, &text);
    describe_number("nzcv", native, engine, RESULT_NZCV, &text);
    describe_number("fpcr", native, engine, RESULT_FPCR, &text);
    describe_number("fpsr", native, engine, RESULT_FPSR, &text);
    describe_number("tpidr_el0", native, engine, RESULT_TPIDR, &text);
    describe_number("hash of memory", native, engine, RESULT_HASH, &text);
    for (std::size_t reg = 0; reg < 32; ++reg) {
      describe_number(format("v%zu low", reg).c_str(), native, engine, RESULT_VECTORS + reg * 16, &text);
      describe_number(format("v%zu high", reg).c_str(), native, engine, RESULT_VECTORS + reg * 16 + 8, &text);
    }
    if (has_sve && native.substr(RESULT_Z) != engine.substr(RESULT_Z)) text += "  z or p registers\n";
    if (native_output.compare(0, native_output.size() - size, engine_output, 0, engine_output.size() - size) != 0) {
      text += "  what was written before the end\n";
    }
  }
  if (!result.engine.messages.empty()) text += "  engine's messages: " + result.engine.messages.substr(0, 600) + "\n";
  return text;
}

program shrink(const test_bed& bed, program made, unsigned* runs) {
  shrinker one(bed, &made);
  one.run();
  if (runs != nullptr) *runs = one.runs();
  return made;
}

std::string list_items(const program& made) {
  std::string text;
  const std::vector<std::vector<std::uint64_t>> addresses = item_addresses(made);
  const image laid_out = lay_out(made);
  for (std::size_t f = 0; f < made.functions.size(); ++f) {
    for (std::size_t i = 0; i < made.functions[f].items.size(); ++i) {
      const item& one = made.functions[f].items[i];
      if (one.fixed || one.state != item_state::KEPT) continue;
      for (std::size_t w = 0; w < one.words.size(); ++w) {
        const std::uint64_t at = addresses[f][i] + 4 * w;
        const std::uint32_t word = laid_out.code[(at - made.base - CODE_OFFSET) / 4];
        text += format("  %" PRIx64 ": %08x %-22s %s %s\n", at, word, class_name(word).c_str(), one.kind, one.detail);
      }
    }
  }
  return text;
}

std::size_t count_words(const program& made) {
  std::size_t count = 0;
  for (const function& one : made.functions) {
    for (const item& part : one.items) {
      if (!part.fixed && part.state == item_state::KEPT) count += part.words.size();
    }
  }
  return count;
}

std::string write_case(const program& made, const std::string& difference) {
  const image what = lay_out(made);
  std::string text = format("# Seed %" PRIu64 ", shrunk.\n", made.seed);
  std::istringstream lines(difference + list_items(made));
  for (std::string line; std::getline(lines, line);) text += "#" + line + "\n";
  text += format("base %" PRIx64 "\nentry %" PRIx64 "\nsve %d\n", what.base, what.entry, what.has_sve ? 1 : 0);
  for (std::size_t i = 0; i < what.code.size(); ++i) {
    text += format("%s %08x", i % 12 == 0 ? "\ncode" : "", what.code[i]);
  }
  for (std::size_t i = 0; i < what.table.size(); ++i) {
    text += format("%s %" PRIx64, i % 6 == 0 ? "\ntable" : "", what.table[i]);
  }
  return text + "\n";
}

bool read_case(const std::string& text, image* what) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string key;
    words >> key >> std::hex;
    std::uint64_t number = 0;
    while (words >> number) {
      if (key == "base") {
        what->base = number;
      } else if (key == "entry") {
        what->entry = number;
      } else if (key == "sve") {
        what->has_sve = number != 0;
      } else if (key == "code") {
        what->code.push_back(static_cast<std::uint32_t>(number));
      } else if (key == "table") {
        what->table.push_back(number);
      } else {
        return false;
      }
    }
    if (!words.eof()) return false;
  }
  return what->base != 0 && what->entry != 0 && !what->code.empty();
}

}  // namespace ceilmeter
