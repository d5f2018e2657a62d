// The protocols by which the engine's threads meet, as litmus tests. Each names the functions that it models, and shows
// two things: no run ends badly, and one does when a single barrier or order is left out. A change of one of these
// functions is a change here.
#include <gtest/gtest.h>

#include "weak_memory.h"

namespace {

using namespace weak_memory;

path thread() { return {}; }

path with_fence(path way, bool fenced, memory_order order) { return fenced ? way.fence(order) : way; }

// code_epoch.cpp leave_call, syscalls.cpp syscall_handler_post, stubs.S syscall_wrapper | mora.cpp mora_terminate
// A thread that comes out of a call while the process ends either finds the flag or is found running.
TEST(protocols, a_thread_that_leaves_a_call_does_not_miss_the_end) {
  enum { STATUS, EXIT_FLAG };
  enum { IN_CALL, RUNNING };
  const auto missed = [](bool thread_fences, bool ender_fences) {
    const path leaving = with_fence(thread().store(STATUS, RUNNING), thread_fences, SEQ_CST).load(0, EXIT_FLAG);
    const path ending =
        with_fence(thread().exchange(1, EXIT_FLAG, 1, SEQ_CST), ender_fences, SEQ_CST).load(0, STATUS, ACQUIRE);
    return can_end({{leaving}, {ending}},
                   [](const outcome& end) { return end.registers[0][0] == 0 && end.registers[1][0] == IN_CALL; });
  };
  EXPECT_FALSE(missed(true, true));
  EXPECT_TRUE(missed(false, true));
  EXPECT_TRUE(missed(true, false));
}

// code_epoch.cpp leave_call, apply_code_epoch, stubs.S syscall_wrapper | drop_code, settle_code_epoch, is_in_call
// A thread that comes out of a call drops what was dropped meanwhile, or is waited for.
TEST(protocols, a_thread_that_leaves_a_call_does_not_miss_an_epoch) {
  enum { RUNS_CALL, EPOCH };
  const auto missed = [](memory_order thread_fence, memory_order dropper_fence) {
    const path leaving = thread().store(RUNS_CALL, 0).fence(thread_fence).load(0, EPOCH, ACQUIRE);
    const path dropping = thread().store(EPOCH, 1, RELEASE).fence(dropper_fence).load(0, RUNS_CALL, ACQUIRE);
    return can_end({{leaving}, {dropping}},
                   [](const outcome& end) { return end.registers[0][0] == 0 && end.registers[1][0] == 1; },
                   {{RUNS_CALL, 1}});
  };
  EXPECT_FALSE(missed(SEQ_CST, SEQ_CST));
  EXPECT_TRUE(missed(ACQUIRE, SEQ_CST));
  EXPECT_TRUE(missed(SEQ_CST, ACQUIRE));
}

// code_epoch.cpp enter_call, stubs.S syscall_wrapper | want_visit
// A thread in the kernel is not signalled: it waits while a visit is wanted, or the wish is taken back.
TEST(protocols, no_signal_strikes_a_thread_in_a_call) {
  enum { RUNS_CALL, WANTED };
  const auto struck = [](bool thread_fences, bool sender_fences) {
    const path entering =
        with_fence(thread().store(RUNS_CALL, 1), thread_fences, SEQ_CST).load(0, WANTED, ACQUIRE).when_equal(0, 0);
    const path sending = with_fence(thread().exchange(1, WANTED, 1, SEQ_CST).when_equal(1, 0), sender_fences, SEQ_CST)
                             .load(0, RUNS_CALL, ACQUIRE)
                             .when_equal(0, 0);  // It sends the signal, and the wish stays.
    return can_end({{entering}, {sending}}, [](const outcome&) { return true; });
  };
  // The one way of the thread that is modelled goes into the kernel, and the one of the sender sends the signal.
  EXPECT_FALSE(struck(true, true));
  EXPECT_TRUE(struck(false, true));
  EXPECT_TRUE(struck(true, false));
}

// code_epoch.cpp drop_code, want_visit by two threads | answer_visit, acknowledge_visit
// A wish that finds another one is answered by the visit that takes both: the epoch read there is the later one.
TEST(protocols, one_visit_answers_two_wishes) {
  enum { EPOCH, WANTED };
  const auto missed = [](memory_order wish, memory_order answer) {
    const path first = thread().store(EPOCH, 1, RELEASE).exchange(0, WANTED, 1, wish).when_equal(0, 0);
    // The second dropper holds the lock behind the first, finds the wish, and sends no signal.
    const path second = thread()
                            .load(0, EPOCH, ACQUIRE)
                            .when_equal(0, 1)
                            .store(EPOCH, 2, RELEASE)
                            .exchange(1, WANTED, 1, wish)
                            .when_equal(1, 1);
    const path answering = thread().exchange(0, WANTED, 0, answer).when_equal(0, 1).load(1, EPOCH, ACQUIRE);
    return can_end({{first}, {second}, {answering}},
                   [](const outcome& end) { return end.memory[WANTED] == 0 && end.registers[2][1] != 2; });
  };
  EXPECT_FALSE(missed(SEQ_CST, ACQ_REL));
  EXPECT_TRUE(missed(RELAXED, ACQ_REL));
  EXPECT_TRUE(missed(SEQ_CST, RELAXED));
}

// code_epoch.cpp drop_code | current_epoch, drop_up_to
TEST(protocols, an_epoch_brings_its_range) {
  enum { START, END, EPOCH };
  const auto torn = [](memory_order stored, memory_order loaded) {
    const path dropping = thread().store(START, 10).store(END, 20).store(EPOCH, 1, stored);
    const path following = thread().load(0, EPOCH, loaded).when_equal(0, 1).load(1, START).load(2, END);
    return can_end({{dropping}, {following}},
                   [](const outcome& end) { return end.registers[1][1] != 10 || end.registers[1][2] != 20; });
  };
  EXPECT_FALSE(torn(RELEASE, ACQUIRE));
  EXPECT_TRUE(torn(RELAXED, ACQUIRE));
  EXPECT_TRUE(torn(RELEASE, RELAXED));
}

// code_epoch.cpp drop_code | drop_up_to
// The place of a range is used again after as many epochs as there are places (one here). A thread that is so far
// behind drops everything: it must not take the later range for the one that it has missed.
TEST(protocols, a_range_that_was_replaced_is_known_by_the_epoch_that_has_begun) {
  enum { BEGUN, RANGE };
  enum { MISSED = 10, LATER = 20 };
  const auto mistaken = [](bool dropper_fences, bool follower_fences) {
    const path dropping = with_fence(thread().store(BEGUN, 2), dropper_fences, RELEASE).store(RANGE, LATER);
    const path following = with_fence(thread().load(0, RANGE), follower_fences, ACQUIRE).load(1, BEGUN);
    return can_end({{dropping}, {following}},
                   [](const outcome& end) { return end.registers[1][0] == LATER && end.registers[1][1] == 1; },
                   {{BEGUN, 1}, {RANGE, MISSED}});
  };
  EXPECT_FALSE(mistaken(true, true));
  EXPECT_TRUE(mistaken(false, true));
  EXPECT_TRUE(mistaken(true, false));
}

// translated_pages.cpp mark_translated, scan_ahead.cpp load_behind_mark | the application's store, has_translated
// Code that changes while it is scanned is scanned as it is now, or the thread that has changed it finds the mark.
TEST(protocols, a_word_is_scanned_as_it_is_or_its_mark_is_found) {
  enum { WORD, MARK };
  const auto missed = [](bool scanner_fences, bool changer_fences) {
    const path scanning = with_fence(thread().exchange(1, MARK, 1, ACQ_REL), scanner_fences, SEQ_CST).load(0, WORD);
    const path changing = with_fence(thread().store(WORD, 1), changer_fences, SEQ_CST).load(0, MARK);
    return can_end({{scanning}, {changing}},
                   [](const outcome& end) { return end.registers[0][0] == 0 && end.registers[1][0] == 0; });
  };
  EXPECT_FALSE(missed(true, true));
  EXPECT_TRUE(missed(false, true));
  EXPECT_TRUE(missed(true, false));
}

// code_epoch.cpp drop_code, translated_pages.cpp clear_translated | has_translated, settle_code_epoch
// A thread that finds no mark because another thread has just dropped the code waits until all have dropped it.
TEST(protocols, who_finds_a_mark_gone_finds_that_an_epoch_has_begun) {
  enum { BEGUN, MARK };
  const auto missed = [](memory_order clear, bool looker_fences) {
    const path dropping = thread().store(BEGUN, 1).exchange(0, MARK, 0, clear);
    const path looking = with_fence(thread().load(0, MARK), looker_fences, ACQUIRE).load(1, BEGUN, ACQUIRE);
    return can_end({{dropping}, {looking}},
                   [](const outcome& end) { return end.registers[1][0] == 0 && end.registers[1][1] == 0; },
                   {{MARK, 1}});
  };
  EXPECT_FALSE(missed(ACQ_REL, true));
  EXPECT_TRUE(missed(RELAXED, true));
  EXPECT_TRUE(missed(ACQ_REL, false));
}

// code_epoch.cpp acknowledge | is_behind, settle_code_epoch | settle_code_epoch of a third thread
// A thread that finds an epoch settled by another one has all that the acknowledging thread did before.
TEST(protocols, what_is_settled_is_settled_for_all) {
  enum { TRAPPED, ACKNOWLEDGED, SETTLED };
  const auto missed = [](memory_order acknowledge, memory_order look) {
    const path acknowledging = thread().store(TRAPPED, 1).store(ACKNOWLEDGED, 1, acknowledge);
    const path settling =
        thread().load(0, ACKNOWLEDGED, ACQUIRE).when_equal(0, 1).compare_exchange(1, SETTLED, 0, 1, ACQ_REL);
    const path looking = thread().load(0, SETTLED, look).when_equal(0, 1).load(1, TRAPPED);
    return can_end({{acknowledging}, {settling}, {looking}},
                   [](const outcome& end) { return end.registers[2][1] == 0; });
  };
  EXPECT_FALSE(missed(RELEASE, ACQUIRE));
  EXPECT_TRUE(missed(RELAXED, ACQUIRE));
  EXPECT_TRUE(missed(RELEASE, RELAXED));
}

// threads.cpp thread_start | mora_create_thread
// The parent goes on when the child has read the arguments on the parent's stack, and finds what the child has stored.
TEST(protocols, a_parent_goes_on_behind_its_childs_start) {
  enum { ARGUMENTS, RESULT, TID_WORD };
  const auto bad = [](memory_order stored, memory_order loaded) {
    const path child = thread().load(0, ARGUMENTS).store(RESULT, 1).store(TID_WORD, 1, stored);
    const path parent =
        thread().load(0, TID_WORD, loaded).when_equal(0, 1).load(1, RESULT).store(ARGUMENTS, 2);  // Its stack goes on.
    return can_end({{child}, {parent}},
                   [](const outcome& end) { return end.registers[0][0] != 1 || end.registers[1][1] != 1; },
                   {{ARGUMENTS, 1}});
  };
  EXPECT_FALSE(bad(RELEASE, ACQUIRE));
  EXPECT_TRUE(bad(RELAXED, ACQUIRE));
  EXPECT_TRUE(bad(RELEASE, RELAXED));
}

// threads.cpp thread_start (enters the list under its lock) | mora.cpp mora_terminate (sets the flag, then takes the
// lock)
TEST(protocols, a_thread_that_starts_while_the_process_ends_is_listed_or_finds_the_flag) {
  enum { LOCK, LIST, EXIT_FLAG };
  const auto lost = [](bool starter_locks, bool ender_locks) {
    path starting = thread();
    if (starter_locks) starting.lock(LOCK);
    starting.load(0, EXIT_FLAG).when_equal(0, 0).store(LIST, 1);
    if (starter_locks) starting.unlock(LOCK);
    path ending = thread().exchange(1, EXIT_FLAG, 1, SEQ_CST).fence(SEQ_CST);
    if (ender_locks) ending.lock(LOCK);
    ending.load(0, LIST);
    if (ender_locks) ending.unlock(LOCK);
    return can_end({{starting}, {ending}}, [](const outcome& end) { return end.registers[1][0] == 0; });
  };
  EXPECT_FALSE(lost(true, true));
  EXPECT_TRUE(lost(false, true));
  EXPECT_TRUE(lost(true, false));
}

// vm_ops.cpp around munmap: begin_mapping_change, the call, end_mapping_change | scan_ahead.cpp is_readable,
// readable_pages.cpp remember_readable, is_known_readable
// A page that was found readable is not taken for readable behind the change that has unmapped it.
TEST(protocols, a_page_is_known_readable_only_while_mappings_stay) {
  enum { STATE, MAPPED };
  const auto mistaken = [](memory_order change, memory_order look) {
    path unmapping = thread();
    unmapping.add(0, STATE, 1, change).store(MAPPED, 0).add(1, STATE, 1, change);
    std::vector<path> asking;
    for (const int asked_at : {2, 4}) {  // An odd one is not remembered.
      asking.push_back(thread().load(0, STATE, look).when_equal(0, asked_at).load(1, MAPPED).when_equal(1, 1));
      asking.back().load(2, STATE, look).when_equal(2, in(0));
    }
    return can_end({{unmapping}, asking}, [](const outcome& end) { return end.registers[1][2] == 4; },
                   {{STATE, 2}, {MAPPED, 1}});
  };
  EXPECT_FALSE(mistaken(ACQ_REL, ACQUIRE));
  EXPECT_TRUE(mistaken(RELAXED, ACQUIRE));
  EXPECT_TRUE(mistaken(ACQ_REL, RELAXED));
}

// robust_list.cpp settle_robust_list, leave_futex | the application's next owner
// The next owner finds what the thread wrote under the mutex, and the thread has read the list's next entry before the
// mutex may belong to somebody who links it elsewhere.
TEST(protocols, a_mutex_that_a_thread_leaves_is_left_behind_all_that_it_did) {
  enum { DATA, NEXT, FUTEX };
  enum { FREE_OF_OWNER, OWNED, TAKEN };
  const auto bad = [](memory_order left) {
    const path leaving = thread().store(DATA, 1).load(0, NEXT).compare_exchange(1, FUTEX, OWNED, FREE_OF_OWNER, left);
    const path taking = thread().compare_exchange(0, FUTEX, FREE_OF_OWNER, TAKEN, ACQUIRE).load(1, DATA).store(NEXT, 2);
    return can_end({{leaving}, {taking}},
                   [](const outcome& end) { return end.registers[1][1] != 1 || end.registers[0][0] != 1; },
                   {{FUTEX, OWNED}, {NEXT, 1}});
  };
  EXPECT_FALSE(bad(RELEASE));
  EXPECT_TRUE(bad(RELAXED));
}

// bintracer.cpp: the start and the stop of a region
// Two threads that are in a region at once are counted as two, and none is left at the end.
TEST(protocols, a_regions_threads_are_counted_without_a_loss) {
  enum { ACTIVE, STARTED };
  const auto lost = [](bool atomic) {
    path visit = thread();
    const auto count = [&visit, atomic](int target, int addend) {
      if (atomic) {
        visit.add(target, ACTIVE, addend, RELAXED);
      } else {
        visit.load(target, ACTIVE).store(ACTIVE, {target, addend});
      }
    };
    count(0, 1);
    // The application's own barrier: nobody stops before both have started.
    visit.add(1, STARTED, 1, ACQ_REL).fence(SEQ_CST).load(2, STARTED, ACQUIRE).when_equal(2, 2);
    count(3, -1);
    return can_end({{visit}, {visit}}, [](const outcome& end) {
      return end.memory[ACTIVE] != 0 || (end.registers[0][3] != 2 && end.registers[1][3] != 2);
    });
  };
  EXPECT_FALSE(lost(true));
  EXPECT_TRUE(lost(false));
}

// bintracer.cpp raise_to
TEST(protocols, the_highest_number_stays) {
  enum { MOST };
  const auto lost = [](bool atomic) {
    const auto raise = [atomic](int number) {
      std::vector<path> ways;
      for (int seen = 0; seen <= 2; ++seen) {
        path way = thread();
        if (seen >= number) {
          ways.push_back(way.load(0, MOST).when_equal(0, seen));
        } else if (atomic) {
          ways.push_back(way.compare_exchange(0, MOST, seen, number, RELAXED));
        } else {
          ways.push_back(way.load(0, MOST).when_equal(0, seen).store(MOST, number));
        }
      }
      return ways;
    };
    return can_end({raise(1), raise(2)}, [](const outcome& end) { return end.memory[MOST] != 2; });
  };
  EXPECT_FALSE(lost(true));
  EXPECT_TRUE(lost(false));
}

// function_watch.cpp function_watch_add_named | watch_of_function
// A function that is found in the table has its whole record: the table moves while it grows.
TEST(protocols, a_watched_function_is_found_with_its_record) {
  enum { LOCK, KEY, RECORD };
  const auto bad = [](bool adder_locks, bool finder_locks) {
    path adding = thread();
    if (adder_locks) adding.lock(LOCK);
    adding.store(RECORD, 1).store(KEY, 1);
    if (adder_locks) adding.unlock(LOCK);
    path finding = thread();
    if (finder_locks) finding.lock(LOCK);
    finding.load(0, KEY).when_equal(0, 1).load(1, RECORD);
    if (finder_locks) finding.unlock(LOCK);
    return can_end({{adding}, {finding}}, [](const outcome& end) { return end.registers[1][1] == 0; });
  };
  EXPECT_FALSE(bad(true, true));
  EXPECT_TRUE(bad(false, true));
  EXPECT_TRUE(bad(true, false));
}

}  // namespace
