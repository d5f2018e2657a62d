// Random operations on the map of ranges, compared with a model whose entries are objects of their own. In the model
// "the kept entry" is an object and not an index. The model knows from the entry's place in the list whether a removal
// moves it.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

#include "interval_map_support.h"

namespace ceilmeter {
namespace {

using test::file_of;
using test::scratch_descriptor;
using test::scratch_interval_map;

struct model_range {
  std::uint64_t start;
  std::uint64_t end;
  ino_t file;  // 0: no descriptor.
};

class interval_model {
 public:
  explicit interval_model(std::size_t capacity) : m_capacity(capacity) {}

  int add(std::uint64_t start, std::uint64_t end, ino_t file) {
    if (start >= end) return -1;
    if (file != 0) ++open;
    std::shared_ptr<model_range> kept;
    bool widening_reaches_kept = true;
    const auto before = entries;
    for (auto at = before.rbegin(); at != before.rend(); ++at) {
      const auto& entry = *at;
      if (!overlaps(*entry, start, end)) continue;
      start = std::min(start, entry->start);
      end = std::max(end, entry->end);
      if (!kept) {
        kept = entry;
      } else {
        if (entries.back() == kept) widening_reaches_kept = false;
        drop(entry);
      }
      if (widening_reaches_kept) {
        kept->start = start;
        kept->end = end;
      }
    }
    if (kept) return 0;  // The duplicate stays open.
    if (entries.size() < m_capacity) {
      entries.push_back(std::make_shared<model_range>(model_range{start, end, file}));
    } else if (file != 0) {
      --open;
    }
    return 0;
  }

  int remove(std::uint64_t start, std::uint64_t end) {
    if (start >= end) return -1;
    const auto touched = found_from_the_end(start, end);
    for (const auto& entry : touched) {
      const bool starts_inside = entry->start >= start;
      const bool ends_inside = entry->end <= end;
      if (starts_inside && ends_inside) {
        drop(entry);
      } else if (entry->start == start) {
        entry->start = end;
      } else if (entry->end == end) {
        entry->end = start;
      } else {
        const std::uint64_t rest = entry->end;
        entry->end = start;
        add(end, rest, entry->file);
      }
    }
    return static_cast<int>(touched.size());
  }

  std::size_t overlapping(std::uint64_t start, std::uint64_t end) const {
    return found_from_the_end(start, end).size();
  }

  const model_range* search(std::uint64_t address) const {
    const auto found = std::find_if(entries.rbegin(), entries.rend(),
                                    [=](const auto& entry) { return entry->start <= address && address < entry->end; });
    return found != entries.rend() ? found->get() : nullptr;
  }

  std::vector<std::shared_ptr<model_range>> entries;
  int open = 0;

 private:
  static bool overlaps(const model_range& entry, std::uint64_t start, std::uint64_t end) {
    return entry.end > start && entry.start < end;
  }

  std::vector<std::shared_ptr<model_range>> found_from_the_end(std::uint64_t start, std::uint64_t end) const {
    std::vector<std::shared_ptr<model_range>> found;
    std::copy_if(entries.rbegin(), entries.rend(), std::back_inserter(found),
                 [=](const auto& entry) { return overlaps(*entry, start, end); });
    return found;
  }

  void drop(const std::shared_ptr<model_range>& entry) {
    if (entry->file != 0) --open;
    *std::find(entries.begin(), entries.end(), entry) = entries.back();
    entries.pop_back();
  }

  std::size_t m_capacity;
};

void expect_same(const scratch_interval_map& scratch, const interval_model& model) {
  ASSERT_EQ(scratch.map.count, static_cast<std::int64_t>(model.entries.size()));
  for (std::size_t index = 0; index < model.entries.size(); ++index) {
    const interval_entry& entry = scratch.map.entries[index];
    const model_range& expected = *model.entries[index];
    ASSERT_EQ(entry.start, expected.start) << "entry " << index;
    ASSERT_EQ(entry.end, expected.end) << "entry " << index;
    ASSERT_EQ(entry.fd >= 0 ? file_of(entry.fd) : 0, expected.file) << "entry " << index;
  }
}

// Rounds of `steps` operations. Every second round has a map so small that it fills up.
void run_rounds(std::uint64_t rounds, int steps, bool with_files) {
  const scratch_descriptor file_a, file_b;
  std::uint64_t merged_away = 0, dead = 0, full = 0;
  for (std::uint64_t seed = 1; seed <= rounds; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937_64 random(seed);
    const std::size_t capacity = seed % 2 == 0 ? 6 : 64;
    scratch_interval_map scratch(static_cast<std::int64_t>(capacity));
    interval_model model(capacity);
    for (int step = 0; step < steps; ++step) {
      SCOPED_TRACE(::testing::Message() << "step " << step);
      const std::uint64_t start = random() % 64;
      const std::uint64_t end = start + random() % (random() % 4 == 0 ? 24 : 6);
      const int fd = !with_files ? -1 : std::array{-1, file_a.fd(), file_b.fd()}[random() % 3];
      switch (random() % 8) {
        case 0:
        case 1:
        case 2:
        case 3: {
          const std::size_t before = model.entries.size();
          ASSERT_EQ(interval_map_add(&scratch.map, start, end, fd), model.add(start, end, fd >= 0 ? file_of(fd) : 0));
          if (model.entries.size() < before) ++merged_away;
          if (model.entries.size() == capacity) ++full;
          break;
        }
        case 4:
        case 5:
        case 6: ASSERT_EQ(interval_map_delete(&scratch.map, start, end), model.remove(start, end)); break;
        default: {
          interval_entry found{};
          const model_range* expected = model.search(start);
          ASSERT_EQ(interval_map_search(&scratch.map, start, &found), expected != nullptr ? 1 : 0);
          if (expected != nullptr) {
            ASSERT_EQ(found.start, expected->start);
            ASSERT_EQ(found.end, expected->end);
          }
          if (start < end) {
            ASSERT_EQ(interval_map_overlapping(&scratch.map, start, end),
                      static_cast<std::int64_t>(model.overlapping(start, end)));
          }
        }
      }
      ASSERT_NO_FATAL_FAILURE(expect_same(scratch, model));
      dead +=
          std::count_if(model.entries.begin(), model.entries.end(), [](const auto& e) { return e->end < e->start; });
    }
    if (with_files) {
      ASSERT_EQ(scratch.opened(), model.open) << "descriptors open";
    }
  }
  EXPECT_GT(merged_away, 0U);
  EXPECT_GT(dead, 0U);
  EXPECT_GT(full, 0U);
}

TEST(interval_map_model_test, random_operations_agree_with_a_naive_model) { run_rounds(200, 200, false); }

TEST(interval_map_model_test, random_operations_hold_the_files_and_descriptors_that_a_naive_model_holds) {
  run_rounds(40, 120, true);
}

}  // namespace
}  // namespace ceilmeter
