// Signals in the stubs: which window a thread is sent back to, and how a stub's frame is undone.
#include "bi/signals/signal_place.h"

#include <cstring>
#include <vector>

#include "signals_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);
SOURCE(loop_to_itself);

namespace {

class signal_place : public signals_fixture {
 protected:
  // A frame at the start of the thread's engine stack. Each word has a value of its own.
  std::uint64_t* engine_frame(std::size_t size) {
    alignas(16) static std::uint64_t engine_stack_words[256];
    for (std::size_t word = 0; word < std::size(engine_stack_words); ++word) engine_stack_words[word] = 0x5000 + word;
    *engine_stack_word(thread) = address_of(std::end(engine_stack_words));
    return std::end(engine_stack_words) - size / 8;
  }
  // The same for a system call. Below the application's stack pointer there is room for a signal's frame.
  std::uint64_t* engine_syscall_frame() {
    alignas(16) static std::uint64_t application_words[sizeof(made_frame) / 8 + 8];
    std::uint64_t* frame = engine_frame(SYSCALL_FRAME_SIZE);
    frame[(STUB_SIMD_REGS_SIZE + SYSCALL_APP_SP) / 8] = address_of(application_words + sizeof(made_frame) / 8);
    return frame;
  }
};

TEST_F(signal_place, one_at_a_system_calls_return_takes_the_frame_apart) {
  const std::uint64_t* frame = engine_syscall_frame();
  const std::uint64_t* area = frame + STUB_SIMD_REGS_SIZE / 8;
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  auto* record = reinterpret_cast<fpsimd_context*>(context().__reserved);
  record->head = {FPSIMD_MAGIC, sizeof(fpsimd_context)};
  context().regs[19] = 0x60000000;
  context().regs[20] = 0x100000400000;
  context().regs[21] = 0x100000000010;

  EXPECT_EQ(arrive(SIGUSR1, stub(syscall_return_point)), address_of(one_ret));

  EXPECT_EQ(context().sp, area[26]);
  EXPECT_EQ(context().pc, area[23]);
  EXPECT_EQ(context().pstate, 0x60000000u);
  for (std::uint64_t reg = 0; reg <= 8; ++reg) EXPECT_EQ(context().regs[reg], 0x100 + reg);
  for (int reg = 9; reg <= 21; ++reg) EXPECT_EQ(context().regs[reg], area[reg]);
  EXPECT_EQ(context().regs[29], area[24]);
  EXPECT_EQ(context().regs[30], area[25]);
  EXPECT_EQ(std::memcmp(record->vregs, frame, STUB_SIMD_REGS_SIZE), 0);
  EXPECT_EQ(record->fpcr, 0x400000u);
  EXPECT_EQ(record->fpsr, 0x10u);
}

TEST_F(signal_place, one_at_a_system_calls_return_leaves_the_bits_of_pstate_beyond_the_flags_alone) {
  engine_syscall_frame();
  constexpr std::uint64_t ssbs = 1ULL << 12;
  constexpr std::uint64_t dit = 1ULL << 24;
  constexpr std::uint64_t tco = 1ULL << 25;
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  context().regs[19] = 0x60000000;
  context().pstate = 0x90000000 | ssbs | dit | tco;
  EXPECT_EQ(arrive(SIGUSR1, stub(syscall_return_point)), address_of(one_ret));
  EXPECT_EQ(context().pstate, 0x60000000 | ssbs | dit | tco);
}

TEST_F(signal_place, one_between_the_look_at_the_count_and_the_way_into_the_cache_makes_the_thread_look_again) {
  const std::uint64_t sp = context().sp;
  for (const std::uint8_t* word = reentry_window; word < reentry_branch; word += 4) {
    EXPECT_EQ(arrive(SIGUSR1, stub(word)), 0u);
    EXPECT_EQ(context().pc, address_of(stub(reentry_window)));
    EXPECT_EQ(context().sp, sp);
  }
  EXPECT_EQ(arrive(SIGUSR1, stub(reentry_branch)), 0u);
  EXPECT_EQ(context().pc, address_of(stub(cache_reentry_stub)));
  EXPECT_EQ(arrive(SIGUSR1, stub(reentry_resume_branch)), 0u);
  EXPECT_EQ(context().pc, address_of(stub(cache_reentry_stub)));
  EXPECT_EQ(context().regs[0], 0x100u);
  EXPECT_EQ(context().regs[1], 0x101u);
  EXPECT_EQ(context().sp, sp);
}

TEST_F(signal_place, one_after_others_have_been_judged_to_wait_has_them_judged_again) {
  for (const std::uint8_t* word = reentry_resume_window; word < reentry_resume_branch; word += 4) {
    std::uint64_t* frame = engine_frame(REENTRY_SIZE);
    frame[REENTRY_NEXT / 8] = 0xca;
    frame[REENTRY_NEXT / 8 + 1] = 0x50;
    frame[REENTRY_APP_SP / 8] = address_of(stack + 32);
    stack[32] = 0xc2;
    stack[33] = 0xc3;
    context().sp = address_of(frame);
    EXPECT_EQ(arrive(SIGUSR1, stub(word)), 0u);
    EXPECT_EQ(context().pc, address_of(stub(reentry_window)));
    EXPECT_EQ(context().regs[0], 0xcau);
    EXPECT_EQ(context().regs[1], 0x50u);
    EXPECT_EQ(context().regs[3], 0xc3u);
    EXPECT_EQ(context().sp, address_of(stack + 32));
  }
}

TEST_F(signal_place, one_between_the_look_at_the_count_and_a_system_call_makes_the_thread_look_again) {
  for (const std::uint8_t* word = syscall_restart_window; word < syscall_call_window; word += 4) {
    EXPECT_EQ(arrive(SIGUSR1, stub(word)), 0u);
    EXPECT_EQ(context().pc, address_of(stub(syscall_restart_window)));
  }
}

// The area of a call by the short way, and the application's x0 and x1 where the wrapper has pushed them.
TEST_F(signal_place, one_in_a_call_by_the_short_way_finds_the_application_at_its_call_or_behind_it) {
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  for (const std::uint8_t* word = quick_call_window; word <= quick_return_point; word += 4) {
    const std::uint64_t* area = engine_syscall_frame() + STUB_SIMD_REGS_SIZE / 8;
    std::uint64_t pushed[] = {0xa0, 0xa1};
    for (std::uint64_t reg = 0; reg <= 30; ++reg) context().regs[reg] = 0x100 + reg;
    context().sp = word == quick_call_window ? address_of(pushed) : area[26];
    context().pstate = 0xa0000000;
    thread->status = THREAD_IN_SYSCALL;
    EXPECT_EQ(arrive(SIGUSR1, stub(word)), address_of(one_ret));
    EXPECT_EQ(context().pc, word == quick_return_point ? area[23] : area[23] - 4);
    EXPECT_EQ(context().sp, area[26]);
    EXPECT_EQ(context().pstate, 0xa0000000u);
    EXPECT_EQ(context().regs[0], word == quick_call_window ? 0xa0u : 0x100u);
    EXPECT_EQ(context().regs[1], word == quick_call_window ? 0xa1u : 0x101u);
    for (std::uint64_t reg = 2; reg <= 30; ++reg) EXPECT_EQ(context().regs[reg], 0x100 + reg);
    EXPECT_EQ(thread->status, THREAD_RUNNING);
    EXPECT_EQ(thread->runs_call, 0u);
  }
}

TEST_F(signal_place, one_before_a_call_by_the_short_way_makes_the_thread_look_again) {
  for (const std::uint8_t* word = quick_restart_window; word < quick_call_window; word += 4) {
    EXPECT_EQ(arrive(SIGUSR1, stub(word)), 0u);
    EXPECT_EQ(context().pc, address_of(stub(quick_restart_window)));
  }
}

TEST_F(signal_place, one_behind_the_look_of_the_short_way_leads_to_the_engine) {
  for (const std::uint8_t* word = quick_look_window; word <= quick_branch; word += 4) {
    const std::uint64_t* area = engine_syscall_frame() + STUB_SIMD_REGS_SIZE / 8;
    const std::uint64_t sp = context().sp;
    EXPECT_EQ(arrive(SIGUSR1, stub(word)), 0u);
    EXPECT_EQ(context().pc, address_of(stub(quick_call_visit)));
    EXPECT_EQ(context().regs[0], area[22]);
    EXPECT_EQ(context().regs[1], area[23]);
    EXPECT_EQ(context().regs[29], area[24]);
    EXPECT_EQ(context().regs[30], area[25]);
    EXPECT_EQ(context().sp, sp);
  }
}

TEST_F(signal_place, one_in_the_counter_of_a_block_traps_the_blocks_exit) {
  const std::int32_t id = scan_block(loop_to_itself);
  dispatched(address_of(loop_to_itself), id);
  EXPECT_EQ(arrive(SIGUSR1, block(id) + 4), 0u);
  EXPECT_EQ(*meta(id).exit_code_addr, HVC_149);
}

TEST_F(signal_place, one_on_the_way_of_a_hot_block_into_the_engine_is_counted) {
  const std::int32_t id = scan_block(loop_to_itself);
  dispatched(address_of(loop_to_itself), id);
  const std::uint32_t exit = *meta(id).exit_code_addr;
  context().regs[30] = address_of(block(id) + 8);
  EXPECT_EQ(arrive(SIGUSR1, stub(hot_counter_stub) + 8), 0u);
  EXPECT_EQ(*meta(id).exit_code_addr, exit);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
}

}  // namespace
}  // namespace ceilmeter::test
