// The signal frame of the application: where it lies, what it contains, and the state in which the handler begins.
#include "bi/signals/signal_frame.h"

#include <asm/sigcontext.h>

#include <cstring>

#include "bi/kernel/call_mask.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signal_stack.h"
#include "bi/signals/signals.h"
#include "signals_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);

namespace {

constexpr std::uint64_t SOURCE_PC = 0x5555001000;
constexpr std::uint64_t RESTORER = 0x5555002000;
constexpr std::uint32_t AUTODISARM = 1U << 31;

class signal_frames : public signals_fixture {
 protected:
  signal_frames() {
    made.frame.info.si_signo = SIGUSR1;
    made.frame.info.si_code = SI_QUEUE;
    made.frame.ucontext.uc_mcontext = context();
    made.frame.ucontext.uc_mcontext.pc = SOURCE_PC;
    made.frame.ucontext.uc_mcontext.regs[29] = 0x2929;
    made.frame.ucontext.uc_mcontext.regs[30] = 0x3030;
    made.frame.ucontext.uc_stack = kernel_signal_stack(thread);
    std::memset(room, 0x5a, sizeof room);
  }

  mcontext_t& entry() { return made.frame.ucontext.uc_mcontext; }
  bool enter(std::uint64_t flags, std::uint64_t mask = 0, std::uint64_t actions_mask = 0) {
    const application_action action{address_of(one_ret), flags, 0, actions_mask};
    return enter_handler(thread, &made.frame, {address_of(made.record), RESTORER}, action, mask);
  }
  // The frame below `top`, which is aligned.
  static const signal_frame* below(std::uint64_t top) {
    return reinterpret_cast<const signal_frame*>(top - sizeof(made_frame));
  }
  std::uint64_t entry_mask() const {
    std::uint64_t mask = 0;
    std::memcpy(&mask, &made.frame.ucontext.uc_sigmask, sizeof mask);
    return mask;
  }

  alignas(16) made_frame made{};
  alignas(16) std::uint8_t signal_room[0x4000] = {};
};

TEST_F(signal_frames, one_lies_right_below_the_applications_sp_and_the_handler_begins_with_it) {
  const std::uint64_t sp = entry().sp;
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_SIGINFO));
  const signal_frame* frame = below(sp);
  EXPECT_EQ(frame->info.si_code, SI_QUEUE);
  EXPECT_EQ(frame->ucontext.uc_mcontext.pc, SOURCE_PC);
  EXPECT_EQ(frame->ucontext.uc_mcontext.sp, sp);
  EXPECT_EQ(frame->ucontext.uc_mcontext.regs[7], 0x107u);
  const auto* record = reinterpret_cast<const std::uint64_t*>(frame + 1);
  EXPECT_EQ(record[0], 0x2929u);
  EXPECT_EQ(record[1], 0x3030u);
  EXPECT_EQ(entry().sp, address_of(frame));
  EXPECT_EQ(entry().regs[0], std::uint64_t{SIGUSR1});
  EXPECT_EQ(entry().regs[1], address_of(&frame->info));
  EXPECT_EQ(entry().regs[2], address_of(&frame->ucontext));
  EXPECT_EQ(entry().regs[3], 0x103u);
  EXPECT_EQ(entry().regs[29], address_of(record));
  EXPECT_EQ(entry().regs[30], RESTORER);
  EXPECT_EQ(entry().pc, hash_lookup_entry(thread, address_of(one_ret)) + ENTRY_WORD_SIZE);
}

TEST_F(signal_frames, nothing_below_one_is_written_for_a_handler_that_has_been_scanned) {
  const std::uint64_t sp = entry().sp;
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_SIGINFO));
  const auto* word = reinterpret_cast<const std::uint64_t*>(below(sp)) - 1;
  while (word >= room && *word == 0x5a5a5a5a5a5a5a5a) --word;
  EXPECT_EQ(word, room - 1);
}

TEST_F(signal_frames, a_handler_that_is_new_begins_by_the_dispatcher) {
  const std::uint64_t sp = entry().sp;
  ASSERT_TRUE(enter(SA_SIGINFO));
  EXPECT_EQ(entry().pc, address_of(thread->code_cache + stub_offset(redirect_stub)));
  EXPECT_EQ(thread->redirect_target, address_of(one_ret));
  EXPECT_EQ(entry().sp, address_of(below(sp)));
  EXPECT_EQ(entry().regs[0], std::uint64_t{SIGUSR1});
  EXPECT_EQ(entry().regs[1], address_of(&below(sp)->info));
}

TEST_F(signal_frames, a_held_signal_makes_the_way_to_the_handler_lead_past_the_look_at_it) {
  scan_block(one_ret);
  count_visit(thread);
  ASSERT_TRUE(enter(0));
  EXPECT_EQ(entry().pc, address_of(thread->code_cache + stub_offset(redirect_stub)));
}

TEST_F(signal_frames, without_sa_siginfo_none_is_written_and_x1_and_x2_stay) {
  const std::uint64_t sp = entry().sp;
  scan_block(one_ret);
  ASSERT_TRUE(enter(0));
  EXPECT_EQ(below(sp)->info.si_code, 0x5a5a5a5a);
  EXPECT_EQ(entry().regs[1], 0x101u);
  EXPECT_EQ(entry().regs[2], 0x102u);
}

TEST_F(signal_frames, an_action_with_a_restorer_returns_there) {
  scan_block(one_ret);
  const application_action action{address_of(one_ret), 0x04000000, 0x5555003000, 0};
  ASSERT_TRUE(enter_handler(thread, &made.frame, {address_of(made.record), RESTORER}, action, 0));
  EXPECT_EQ(entry().regs[30], 0x5555003000u);
}

TEST_F(signal_frames, a_handler_begins_with_the_masks_of_thread_and_action_and_its_own_signal_but_never_sigill) {
  scan_block(one_ret);
  ASSERT_TRUE(enter(0, signal_bit(SIGHUP), signal_bit(SIGINT) | SIGILL_BIT));
  EXPECT_EQ(entry_mask(), signal_bit(SIGHUP) | signal_bit(SIGINT) | signal_bit(SIGUSR1));
}

TEST_F(signal_frames, sa_nodefer_leaves_the_signal_itself_out_of_the_mask) {
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_NODEFER));
  EXPECT_EQ(entry_mask(), 0u);
}

TEST_F(signal_frames, extra_records_are_copied_and_found_at_their_new_place) {
  struct large_frame {
    signal_frame frame;
    std::uint8_t more[0x800];
    std::uint64_t record[2];
  };
  alignas(16) static large_frame large;
  std::memcpy(&large.frame, &made.frame, sizeof made.frame);
  auto* extra = reinterpret_cast<extra_context*>(large.frame.ucontext.uc_mcontext.__reserved);
  extra->head = {EXTRA_MAGIC, sizeof *extra};
  auto* data = reinterpret_cast<std::uint8_t*>(extra + 1) + sizeof(_aarch64_ctx) + 8;  // Behind the empty record.
  extra->datap = address_of(data);
  extra->size = static_cast<std::uint32_t>(address_of(large.record) - address_of(data));
  for (std::uint32_t byte = 0; byte < extra->size; ++byte) data[byte] = static_cast<std::uint8_t>(byte * 5 + 1);
  thread->own_stack = {address_of(signal_room), sizeof signal_room, 0};
  scan_block(one_ret);
  const application_action action{address_of(one_ret), SA_ONSTACK, 0, 0};
  ASSERT_TRUE(enter_handler(thread, &large.frame, {address_of(large.record), 0}, action, 0));
  const auto* copy = reinterpret_cast<const large_frame*>(signal_room + sizeof signal_room) - 1;
  const auto* moved = reinterpret_cast<const extra_context*>(copy->frame.ucontext.uc_mcontext.__reserved);
  EXPECT_EQ(moved->datap - address_of(copy), address_of(data) - address_of(&large));
  EXPECT_EQ(std::memcmp(reinterpret_cast<const void*>(moved->datap), data, extra->size), 0);
}

TEST_F(signal_frames, with_sa_onstack_one_lies_at_the_end_of_the_applications_signal_stack) {
  thread->own_stack = {address_of(signal_room), sizeof signal_room, 0};
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_ONSTACK));
  const signal_frame* frame = below(address_of(signal_room + sizeof signal_room));
  EXPECT_EQ(entry().sp, address_of(frame));
  EXPECT_EQ(frame->ucontext.uc_stack.ss_sp, signal_room);
  EXPECT_EQ(frame->ucontext.uc_stack.ss_size, sizeof signal_room);
  EXPECT_EQ(frame->ucontext.uc_stack.ss_flags, 0);
}

TEST_F(signal_frames, a_thread_that_is_on_its_signal_stack_goes_on_below_its_sp) {
  thread->own_stack = {address_of(room), sizeof room, 0};
  const std::uint64_t sp = entry().sp;
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_ONSTACK));
  EXPECT_EQ(entry().sp, address_of(below(sp)));
}

TEST_F(signal_frames, where_the_kernel_tells_how_a_stack_is_used_the_frame_does_so_too) {
  thread->own_stack = {address_of(room), sizeof room, 0};
  const std::uint64_t sp = entry().sp;
  made.frame.ucontext.uc_stack.ss_flags = 0;  // Set with SS_ONSTACK, and told as not in use.
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_ONSTACK));
  EXPECT_EQ(below(sp)->ucontext.uc_stack.ss_flags, SS_ONSTACK);
}

TEST_F(signal_frames, a_stack_that_disarms_itself_is_gone_in_the_handler_and_back_after_it) {
  const application_stack armed = {address_of(signal_room), sizeof signal_room, AUTODISARM};
  thread->own_stack = armed;
  thread->accepted_stack = armed;
  scan_block(one_ret);
  ASSERT_TRUE(enter(SA_ONSTACK));
  EXPECT_EQ(thread->own_stack.size, 0u);
  EXPECT_EQ(thread->own_stack.flags, std::uint32_t{SS_DISABLE});
  auto* frame = const_cast<signal_frame*>(below(address_of(signal_room + sizeof signal_room)));
  take_back_frame(thread, &frame->ucontext);
  EXPECT_EQ(thread->own_stack.sp, armed.sp);
  EXPECT_EQ(thread->own_stack.size, armed.size);
  EXPECT_EQ(thread->own_stack.flags, armed.flags);
}

TEST_F(signal_frames, a_frame_to_return_from_has_the_engines_stack) {
  ucontext_t returned{};
  returned.uc_stack.ss_flags = SS_DISABLE;
  take_back_frame(thread, &returned);
  const stack_t engines = kernel_signal_stack(thread);
  EXPECT_EQ(returned.uc_stack.ss_sp, engines.ss_sp);
  EXPECT_EQ(returned.uc_stack.ss_size, engines.ss_size);
  EXPECT_EQ(returned.uc_stack.ss_flags, engines.ss_flags);
}

TEST_F(signal_frames, a_stack_that_cannot_take_one_changes_nothing) {
  thread->own_stack = {0x10000, 0x10000, AUTODISARM};
  const made_frame before = made;
  EXPECT_FALSE(enter(SA_ONSTACK | SA_SIGINFO));
  EXPECT_EQ(std::memcmp(&before, &made, sizeof made), 0);
  EXPECT_EQ(thread->own_stack.flags, AUTODISARM);
}

}  // namespace
}  // namespace ceilmeter::test
