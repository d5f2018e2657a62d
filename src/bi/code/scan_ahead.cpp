// Reads source words without writing any code.
#include "bi/code/scan_ahead.h"

#include <algorithm>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/exit_branch.h"
#include "bi/code/readable_pages.h"
#include "bi/code/scanner.h"
#include "bi/code/translated_pages.h"

namespace ceilmeter {

bool is_source_readable(const std::uint32_t* word) { return is_page_readable(address_of(word)); }

bool is_compare_and_branch(std::uint32_t word) {
  exit_branch branch{};
  return decode_exit_branch(word, &branch) && branch.kind == EXIT_COMPARE;
}

bool is_branch_without_class(std::uint32_t word) {
  a64_authenticated_branch branch{};
  return a64_authenticated_branch_decode(word, &branch) || is_compare_and_branch(word);
}

bool is_first_of_its_block(std::uint32_t word, int inst) {
  if (starts_streaming(word)) return true;
  if (inst != A64_LDR_LITERAL) return inst == A64_NOT_RECOGNISED && !is_branch_without_class(word);
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(&word, &opc, &is_vector, &imm19, &reg);
  return is_vector != 0 && opc == 3;
}

void mark_line_before_load(source_window& window, std::uint64_t line) {
  window.marked_line = line;
  mark_translated_line(line);
}

namespace {

// Relaxed: a thread that patches code makes the new word known by means of its own. Here a word only has to be whole.
std::uint32_t load_behind_mark(source_window& window, const std::uint32_t* place) {
  mark_before_load(window, place);
  return __atomic_load_n(place, __ATOMIC_RELAXED);
}

}  // namespace

std::uint32_t load_word(source_window& window, const std::uint32_t* place) {
  const auto index = static_cast<std::size_t>(place - window.first);
  if (index >= window.room) return load_behind_mark(window, place);
  for (; window.count <= index; ++window.count) {
    window.kept[window.count] = load_behind_mark(window, window.first + window.count);
  }
  return window.kept[index];
}

namespace {

// The classes of words that may end a fragment or tell something else of it, see find_end.
using class_flags = std::array<bool, A64_NOT_RECOGNISED + 1>;

constexpr class_flags classes_that_say_more() {
  class_flags says{};
  for (std::size_t inst = 0; inst < says.size(); ++inst) says[inst] = !copied_classes[inst] || inst == A64_LDX_STX;
  return says;
}

constexpr class_flags SAYS_MORE = classes_that_say_more();

// Whether the place is the next one to be loaded, and there is room for its word and class.
bool is_next_place(const source_window& window, const std::uint32_t* place) {
  return window.classes != nullptr && place == window.first + window.count && window.count < window.room;
}

bool is_loaded(const source_window& window, const std::uint32_t* place) {
  return static_cast<std::size_t>(place - window.first) < window.count;
}

// Loads and decodes the words from `read` on, which can be read, one behind the other, up to and with one that says
// more than that the code goes on, or to the next page's first word, which is left. Returns that place. `read` is the
// next place to be loaded, and the window has room for its word and class.
const std::uint32_t* load_plain_words(source_window& window, const std::uint32_t* read) {
  static_assert(SMALLEST_PAGE % TRANSLATED_LINE == 0);
  std::uint32_t* const kept = window.kept;
  std::uint8_t* const classes = window.classes;
  bool is_plain = true;
  std::size_t index = window.count;
  do {  // For each line: the room counts from the fragment's first word, so its end is looked for once a line, too.
    mark_before_load(window, read);
    const std::size_t words_left = (TRANSLATED_LINE - address_of(read) % TRANSLATED_LINE) / sizeof *read;
    const std::size_t end = std::min(window.room, index + words_left);
    for (; is_plain && index < end; ++index, ++read) {
      const std::uint32_t word = __atomic_load_n(read, __ATOMIC_RELAXED);  // As in load_behind_mark.
      const int inst = a64_decode(&word);
      kept[index] = word;
      classes[index] = static_cast<std::uint8_t>(inst);
      is_plain = !SAYS_MORE[static_cast<std::size_t>(inst)];
    }
  } while (is_plain && index < window.room && address_of(read) % SMALLEST_PAGE != 0);
  const std::size_t plain = is_plain ? index : index - 1;
  if (window.plain == window.count) window.plain = plain;
  window.count = index;
  return window.first + plain;
}
static_assert(A64_NOT_RECOGNISED <= 0xff);

int class_at(const source_window& window, const std::uint32_t* place, std::uint32_t word) {
  const bool is_known = window.classes != nullptr && is_loaded(window, place);
  return is_known ? int{window.classes[place - window.first]} : a64_decode(&word);
}

}  // namespace

fragment_end find_end(source_window& window, const std::uint32_t* read) {
  fragment_end end{};
  for (;; ++read) {
    end.word = read;
    if (begins_unreadable_page(read)) return end;
    if (is_next_place(window, read)) {
      read = load_plain_words(window, read);
      if (!is_loaded(window, read)) {
        --read;  // Once more for this place: a page begins, or the room is at its end.
        continue;
      }
      end.word = read;
    }
    const std::uint32_t word = word_at(window, read);
    switch (const int inst = class_at(window, read, word)) {
      case A64_CBZ:
      case A64_B_COND:
      case A64_TBZ:
      case A64_B:
        end.is_direct_branch = true;
        end.is_inside = true;
        return end;
      case A64_BR:
      case A64_BLR:
      case A64_RET: end.is_inside = true; return end;
      case A64_NOT_RECOGNISED:  // A branch without a class, or a word that begins its own block.
        end.is_direct_branch = is_compare_and_branch(word);
        end.is_inside = is_branch_without_class(word);
        return end;
      case A64_SYS:
        if (!is_invalidation(word)) break;
        end.is_direct_branch = true;  // To the word behind it.
        end.is_inside = true;
        return end;
      case A64_LDX_STX:
        if (is_store_exclusive(word)) end.has_store_exclusive = true;
        break;
      case A64_LDR_LITERAL:
      case A64_MSR_IMM:
      case A64_MRS_MSR:
        if (is_first_of_its_block(word, inst)) return end;
        break;
      default: break;
    }
  }
}

namespace {

constexpr int FURTHEST_STORE = 32;  // Words from the fragment's first.

}  // namespace

bool begins_between_exclusives(source_window& window, const std::uint32_t* read) {
  for (const std::uint32_t* end = read + FURTHEST_STORE; read != end; ++read) {
    if (begins_unreadable_page(read)) return false;
    const std::uint32_t word = word_at(window, read);
    if (is_invalidation(word)) return false;
    switch (const int inst = a64_decode(&word)) {
      case A64_LDX_STX:
        if (is_store_exclusive(word)) return true;
        if (is_load_exclusive(word)) return false;
        break;  // LDAR, STLR and the like.
      // Neither the kernel's way back from an exception nor CLREX leaves a pair open.
      case A64_SVC:
      case A64_HVC:
      case A64_SMC:
      case A64_BRK:
      case A64_HLT:
      case A64_CLREX:
      case A64_CBZ:
      case A64_B_COND:
      case A64_TBZ:
      case A64_B:
      case A64_BR:
      case A64_BLR:
      case A64_RET:
      case A64_NOT_RECOGNISED: return false;
      case A64_LDR_LITERAL:
      case A64_MSR_IMM:
      case A64_MRS_MSR:
        if (is_first_of_its_block(word, inst)) return false;
        break;
      default: break;
    }
  }
  return false;
}

std::uint64_t count_source_words(const std::uint32_t* read_address) {
  if (!is_source_readable(read_address)) return 0;
  // A word that begins its own block does not end the fragment that begins with it.
  source_window window{read_address};
  window.is_translated = false;
  const bool stands_alone = begins_its_own_block(word_at(window, read_address));
  const std::uint32_t* end = find_end(window, stands_alone ? read_address + 1 : read_address).word;
  return static_cast<std::uint64_t>(end - read_address) + 1;
}

}  // namespace ceilmeter
