// The marks that lead from the cache back to the source, written by the functions that the scanner calls.
#include "bi/code/source_map.h"

#include "engine_fixture.h"

namespace ceilmeter {
namespace {

using test::engine_test;

constexpr std::size_t PER_WORD = SOURCE_MARKS_PER_WORD;

class source_map_test : public engine_test {
 protected:
  // A place in the cache whose marks begin a word of them.
  std::uint32_t* place(std::size_t index) const { return reinterpret_cast<std::uint32_t*>(thread->code_cache) + index; }

  std::vector<std::uint32_t> marks(std::size_t first, std::size_t count) const {
    std::vector<std::uint32_t> found;
    for (std::size_t index = first; index < first + count; ++index) {
      found.push_back(static_cast<std::uint32_t>(thread->source_marks[index / PER_WORD] >> index % PER_WORD * 2 & 3));
    }
    return found;
  }

  // Fills the marks of `count` words of them with those of an earlier fragment.
  void leave_old_marks(std::size_t first, std::size_t count) {
    for (std::size_t word = first / PER_WORD; word <= (first + count) / PER_WORD; ++word) {
      thread->source_marks[word] = ~std::uint64_t{0};
    }
  }
};

std::vector<std::uint32_t> all(std::size_t count, std::uint32_t mark) { return std::vector(count, mark); }

constexpr std::size_t FIRST = 4096;
static_assert(FIRST % PER_WORD == 0);

TEST_F(source_map_test, marking_words_one_by_one_and_as_a_run_leaves_the_same) {
  // Each place in a word of marks, and runs over the ends of one and two of them.
  for (std::size_t before = 1; before <= PER_WORD; ++before) {
    for (std::size_t count : {std::size_t{1}, std::size_t{2}, PER_WORD - 1, PER_WORD, PER_WORD + 1, 2 * PER_WORD + 3}) {
      leave_old_marks(FIRST, 4 * PER_WORD);
      begin_source_marks(thread, place(FIRST));
      mark_source(thread, place(FIRST + before - 1), MARK_INSERTED);
      for (std::size_t index = 0; index < count; ++index) {
        mark_source(thread, place(FIRST + before + index), MARK_SOURCE);
      }
      end_source_marks(thread, place(FIRST + before + count));
      const std::vector<std::uint32_t> expected = marks(FIRST, before + count + 1);

      leave_old_marks(FIRST, 4 * PER_WORD);
      begin_source_marks(thread, place(FIRST));
      mark_source(thread, place(FIRST + before - 1), MARK_INSERTED);
      mark_source_words(thread, place(FIRST + before), count);
      end_source_marks(thread, place(FIRST + before + count));
      EXPECT_EQ(marks(FIRST, before + count), std::vector(expected.begin(), expected.end() - 1))
          << count << " words behind " << before;
      EXPECT_EQ(marks(FIRST + before, count), all(count, MARK_SOURCE)) << count << " words behind " << before;
      EXPECT_EQ(marks(FIRST + before - 1, 1), all(1, MARK_INSERTED));
    }
  }
}

TEST_F(source_map_test, a_run_of_no_words_marks_nothing) {
  begin_source_marks(thread, place(FIRST));
  mark_source_words(thread, place(FIRST), 0);
  EXPECT_EQ(marks(FIRST, PER_WORD), all(PER_WORD, MARK_SAME));
}

TEST_F(source_map_test, a_run_that_ends_with_the_cache_is_marked_and_one_beyond_it_is_not) {
  constexpr std::size_t words = CODE_CACHE_SIZE / sizeof(std::uint32_t);
  begin_source_marks(thread, place(words - 3));
  mark_source_words(thread, place(words - 3), 3);
  EXPECT_EQ(marks(words - 3, 3), all(3, MARK_SOURCE));
  begin_source_marks(thread, place(words - 3));
  mark_source_words(thread, place(words - 3), 4);
  EXPECT_EQ(marks(words - 3, 3), all(3, MARK_SAME));
}

TEST_F(source_map_test, words_without_a_mark_between_two_have_none_of_an_earlier_fragment) {
  leave_old_marks(FIRST, 4 * PER_WORD);
  begin_source_marks(thread, place(FIRST));
  mark_source(thread, place(FIRST + 2), MARK_SOURCE);
  mark_source(thread, place(FIRST + 2 * PER_WORD + 5), MARK_INSERTED);
  EXPECT_EQ(marks(FIRST, 2), all(2, MARK_SAME));
  EXPECT_EQ(marks(FIRST + 2, 1), all(1, MARK_SOURCE));
  EXPECT_EQ(marks(FIRST + 3, 2 * PER_WORD + 2), all(2 * PER_WORD + 2, MARK_SAME));
  EXPECT_EQ(marks(FIRST + 2 * PER_WORD + 5, 1), all(1, MARK_INSERTED));
}

TEST_F(source_map_test, the_marks_of_the_fragment_in_front_stay) {
  begin_source_marks(thread, place(FIRST));
  mark_source_words(thread, place(FIRST), 5);
  end_source_marks(thread, place(FIRST + 5));
  begin_source_marks(thread, place(FIRST + 5));
  mark_source_words(thread, place(FIRST + 7), 2);
  EXPECT_EQ(marks(FIRST, 5), all(5, MARK_SOURCE));
  EXPECT_EQ(marks(FIRST + 5, 2), all(2, MARK_SAME));
  EXPECT_EQ(marks(FIRST + 7, 2), all(2, MARK_SOURCE));
}

TEST_F(source_map_test, the_later_of_two_marks_of_a_place_holds) {
  begin_source_marks(thread, place(FIRST));
  mark_source(thread, place(FIRST), MARK_INSERTED);
  mark_source(thread, place(FIRST), MARK_SOURCE);
  mark_source(thread, place(FIRST + 1), MARK_CONTINUED);
  mark_source(thread, place(FIRST + 1), MARK_INSERTED);
  EXPECT_EQ(marks(FIRST, 1), all(1, MARK_SOURCE));
  EXPECT_EQ(marks(FIRST + 1, 1), all(1, MARK_INSERTED));
}

TEST_F(source_map_test, a_place_outside_the_cache_has_no_mark) {
  std::uint32_t elsewhere = 0;
  leave_old_marks(FIRST, 1);
  begin_source_marks(thread, &elsewhere);
  mark_source(thread, &elsewhere, MARK_SOURCE);
  end_source_marks(thread, &elsewhere + 1);
  EXPECT_EQ(marks(FIRST, 1), all(1, 3));
  // A mark in the cache behind that begins with its own fragment.
  mark_source(thread, place(FIRST), MARK_SOURCE);
  EXPECT_EQ(marks(FIRST, 1), all(1, MARK_SOURCE));
  EXPECT_EQ(marks(FIRST + 1, PER_WORD - 1), all(PER_WORD - 1, MARK_SAME));
}

}  // namespace
}  // namespace ceilmeter
