// A thread that receives signals at places of the test's choice, through contexts made up here.
#pragma once

#include <ucontext.h>

#include <array>
#include <csignal>

#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/stub_layout.h"
#include "bi/code/stubs.h"
#include "engine_fixture.h"
#include "signal_arrival.h"

namespace ceilmeter::test {

inline constexpr std::uint32_t HVC_148 = 0xd4001282;
inline constexpr std::uint32_t HVC_149 = 0xd40012a2;

class signals_fixture : public engine_test {
 protected:
  signals_fixture() {
    context().sp = address_of(stack + 64);
    for (int reg = 0; reg < 31; ++reg) context().regs[reg] = 0x100 + static_cast<std::uint64_t>(reg);
  }

  mcontext_t& context() { return ucontext.uc_mcontext; }
  // The source address of the handler that is entered; 0 if the interrupted code goes on. SIGILL and SIGSEGV are faults
  // unless `code` says that somebody has sent them. Afterwards the context is the one that the handler finds.
  std::uint64_t arrive(int signum, const void* pc, int code = 1) {
    context().pc = address_of(pc);
    siginfo_t info{};
    info.si_signo = signum;
    info.si_code = code;
    return arrive(info);
  }
  std::uint64_t arrive(siginfo_t& info) {
    arrive_with(info, ucontext);
    const bool dispatched = context().pc == address_of(stub(redirect_stub));
    const auto* placed = reinterpret_cast<const signal_frame*>(context().sp);
    if (context().regs[29] != address_of(placed + 1)) return 0;  // Not a handler's.
    entered = ucontext;
    const std::uint64_t straight = context().pc - ENTRY_WORD_SIZE;
    const std::uint64_t target =
        dispatched ? thread->redirect_target : meta(cc_addr_to_bb_id(thread, straight)).source_addr;
    EXPECT_TRUE(dispatched || hash_lookup_entry(thread, target) == straight);
    ucontext = placed->ucontext;
    return target;
  }
  const std::uint8_t* stub(const std::uint8_t* place) const { return thread->code_cache + stub_offset(place); }
  void expect_at_dispatcher(std::uint64_t target, std::uint64_t sp_before) {
    EXPECT_EQ(context().pc, address_of(stub(redirect_stub)));
    EXPECT_EQ(thread->redirect_target, target);
    EXPECT_EQ(context().sp, sp_before) << "the stub pushes, where that may fault";
  }
  // Links the exit at its taken side, has a signal in the block's body trap it, and runs into the trap with the context
  // as it is. Returns where execution continues.
  std::uint64_t through_trap(const std::uint32_t* source, std::uint64_t taken) {
    const std::int32_t id = scan_block(source);
    dispatched(taken, id);
    const auto registers = std::to_array(context().regs);
    arrive(SIGUSR1, block(id) + 1);
    EXPECT_THAT(words(meta(id).exit_code_addr, 2), testing::Each(HVC_149));
    const std::uint64_t sp = context().sp;
    EXPECT_EQ(arrive(SIGILL, meta(id).exit_code_addr), 0u);
    const std::uint64_t target = thread->redirect_target;
    expect_at_dispatcher(target, sp);
    EXPECT_EQ(std::to_array(context().regs), registers);
    return target;
  }

  ucontext_t ucontext{};
  ucontext_t entered{};  // What the thread goes into the handler with.
  alignas(16) std::uint64_t room[1024] = {};
  std::uint64_t* const stack = room + 896;
};

}  // namespace ceilmeter::test
