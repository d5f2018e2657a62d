// The explorer against outcomes that the architecture is known to allow and to forbid.
#include "weak_memory.h"

#include <gtest/gtest.h>

namespace {

using namespace weak_memory;

enum { X, Y };

path thread() { return {}; }

bool message_is_missed(memory_order stored, memory_order loaded) {
  return can_end({{thread().store(X, 1).store(Y, 1, stored)}, {thread().load(0, Y, loaded).load(1, X)}},
                 [](const outcome& end) { return end.registers[1][0] == 1 && end.registers[1][1] == 0; });
}

TEST(weak_memory, a_message_needs_a_release_and_an_acquire) {
  EXPECT_TRUE(message_is_missed(RELAXED, RELAXED));
  EXPECT_TRUE(message_is_missed(RELEASE, RELAXED));
  EXPECT_TRUE(message_is_missed(RELAXED, ACQUIRE));
  EXPECT_FALSE(message_is_missed(RELEASE, ACQUIRE));
}

TEST(weak_memory, a_message_may_be_ordered_by_fences_and_by_an_address_and_not_by_a_branch) {
  const auto missed = [](const outcome& end) { return end.registers[1][0] == 1 && end.registers[1][1] == 0; };
  const path writer = thread().store(X, 1).fence(RELEASE).store(Y, 1);
  EXPECT_FALSE(can_end({{writer}, {thread().load(0, Y).fence(ACQUIRE).load(1, X)}}, missed));
  EXPECT_FALSE(can_end({{writer}, {thread().load(0, Y).load_through(0, 1, X)}}, missed));
  EXPECT_TRUE(can_end({{writer}, {thread().load(0, Y).when_equal(0, 1).load(1, X)}}, missed));
  // An acquire fence orders no stores.
  EXPECT_TRUE(
      can_end({{thread().store(X, 1).fence(ACQUIRE).store(Y, 1)}, {thread().load(0, Y, ACQUIRE).load(1, X)}}, missed));
}

bool both_miss(const path& one, const path& other) {
  return can_end({{one}, {other}},
                 [](const outcome& end) { return end.registers[0][0] == 0 && end.registers[1][0] == 0; });
}

TEST(weak_memory, stores_are_buffered_unless_both_sides_have_a_full_fence_or_are_sequentially_consistent) {
  const auto side = [](int mine, int others, memory_order order) {
    return thread().store(mine, 1, order).load(0, others, order);
  };
  const auto fenced = [](int mine, int others, memory_order order) {
    return thread().store(mine, 1).fence(order).load(0, others);
  };
  EXPECT_TRUE(both_miss(side(X, Y, RELAXED), side(Y, X, RELAXED)));
  EXPECT_TRUE(both_miss(side(X, Y, RELEASE), side(Y, X, ACQUIRE)));
  EXPECT_FALSE(both_miss(side(X, Y, SEQ_CST), side(Y, X, SEQ_CST)));
  EXPECT_FALSE(both_miss(fenced(X, Y, SEQ_CST), fenced(Y, X, SEQ_CST)));
  EXPECT_TRUE(both_miss(fenced(X, Y, SEQ_CST), side(Y, X, RELAXED)));
  EXPECT_TRUE(both_miss(fenced(X, Y, ACQUIRE), fenced(Y, X, ACQUIRE)));
  // The store of an exchange may come after a later load.
  EXPECT_TRUE(
      both_miss(thread().exchange(1, X, 1, ACQ_REL).load(0, Y), thread().exchange(1, Y, 1, ACQ_REL).load(0, X)));
}

TEST(weak_memory, a_load_may_follow_a_later_store_unless_the_store_depends_on_it) {
  const auto both_early = [](const path& one, const path& other) {
    return can_end({{one}, {other}},
                   [](const outcome& end) { return end.registers[0][0] == 1 && end.registers[1][0] == 1; });
  };
  const auto plain = [](int from, int to) { return thread().load(0, from).store(to, 1); };
  const auto data = [](int from, int to) { return thread().load(0, from).store(to, in(0)); };
  const auto branch = [](int from, int to) { return thread().load(0, from).when_equal(0, 1).store(to, 1); };
  EXPECT_TRUE(both_early(plain(X, Y), plain(Y, X)));
  EXPECT_TRUE(both_early(plain(X, Y), branch(Y, X)));
  EXPECT_FALSE(both_early(branch(X, Y), branch(Y, X)));
  EXPECT_FALSE(both_early(data(X, Y), data(Y, X)));
}

TEST(weak_memory, all_threads_see_independent_stores_in_one_order_if_they_look_in_order) {
  const auto disagree = [](memory_order order) {
    const auto look = [order](int first, int second) { return thread().load(0, first, order).load(1, second); };
    return can_end({{thread().store(X, 1)}, {thread().store(Y, 1)}, {look(X, Y)}, {look(Y, X)}},
                   [](const outcome& end) {
                     return end.registers[2][0] == 1 && end.registers[2][1] == 0 && end.registers[3][0] == 1 &&
                            end.registers[3][1] == 0;
                   });
  };
  EXPECT_TRUE(disagree(RELAXED));
  EXPECT_FALSE(disagree(ACQUIRE));
}

TEST(weak_memory, what_one_thread_has_read_from_another_is_there_for_a_third) {
  EXPECT_FALSE(can_end(
      {{thread().store(X, 1)}, {thread().load(0, X).store(Y, in(0))}, {thread().load(0, Y).load_through(0, 1, X)}},
      [](const outcome& end) { return end.registers[2][0] == 1 && end.registers[2][1] == 0; }));
}

TEST(weak_memory, stores_to_two_places_end_in_one_order_if_they_release) {
  const auto crossed = [](memory_order order) {
    const auto writer = [order](int first, int second) { return thread().store(first, 1).store(second, 2, order); };
    return can_end({{writer(X, Y)}, {writer(Y, X)}},
                   [](const outcome& end) { return end.memory[X] == 1 && end.memory[Y] == 1; });
  };
  EXPECT_TRUE(crossed(RELAXED));
  EXPECT_FALSE(crossed(RELEASE));
}

TEST(weak_memory, a_thread_reads_its_own_store_before_others_do) {
  const auto side = [](int mine, int others) { return thread().store(mine, 1).load(1, mine, ACQUIRE).load(0, others); };
  EXPECT_TRUE(can_end({{side(X, Y)}, {side(Y, X)}}, [](const outcome& end) {
    return end.registers[0][0] == 0 && end.registers[1][0] == 0 && end.registers[0][1] == 1 && end.registers[1][1] == 1;
  }));
}

TEST(weak_memory, one_place_never_goes_back) {
  EXPECT_FALSE(can_end({{thread().store(X, 1)}, {thread().load(0, X).load(1, X)}},
                       [](const outcome& end) { return end.registers[1][0] == 1 && end.registers[1][1] == 0; }));
  EXPECT_FALSE(
      can_end({{thread().store(X, 1).load(0, X)}}, [](const outcome& end) { return end.registers[0][0] == 0; }));
}

TEST(weak_memory, atomic_operations_lose_nothing_and_others_do) {
  const auto lost = [](const outcome& end) { return end.memory[X] != 2; };
  const path atomic = thread().add(0, X, 1, RELAXED);
  const path apart = thread().load(0, X).store(X, {0, 1});
  EXPECT_FALSE(can_end({{atomic}, {atomic}}, lost));
  EXPECT_TRUE(can_end({{apart}, {apart}}, lost));
  EXPECT_TRUE(can_end({{atomic}, {apart}}, lost));
  // Two of one thread's may overlap, and keep apart.
  const path two = thread().add(0, X, 1, RELAXED).add(1, Y, 1, RELAXED);
  EXPECT_FALSE(can_end({{two}, {two}}, [](const outcome& end) { return end.memory[X] != 2 || end.memory[Y] != 2; }));
}

TEST(weak_memory, a_lock_holds_others_off) {
  const auto lost = [](const outcome& end) { return end.memory[X] != 2; };
  const path locked = thread().lock(Y).load(0, X).store(X, {0, 1}).unlock(Y);
  EXPECT_FALSE(can_end({{locked}, {locked}}, lost));
  EXPECT_TRUE(can_end({{locked}, {thread().load(0, X).store(X, {0, 1})}}, lost));
}

TEST(weak_memory, ways_that_no_run_goes_have_no_end) {
  EXPECT_EQ(count_ends({{thread().load(0, X).when_equal(0, 1), thread().load(0, X).when_not_equal(0, 1)}}), 1u);
  EXPECT_FALSE(can_end({{thread().load(0, X).when_equal(0, 1)}}, [](const outcome&) { return true; }));
  EXPECT_TRUE(can_end({{thread().load(0, X).when_equal(0, 1)}}, [](const outcome&) { return true; }, {{X, 1}}));
  // X and Y are stored in any order and read in any order.
  EXPECT_EQ(count_ends({{thread().store(X, 1).store(Y, 1)}, {thread().load(0, X).load(1, Y)}}), 4u);
}

}  // namespace
