// A thread that signals find at places of the tests' choice, by contexts made up here.
#pragma once

#include <ucontext.h>

#include <csignal>

#include "bi/code/stub_layout.h"
#include "bi/code/stubs.h"
#include "engine_fixture.h"

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
  // The source address of the handler that is entered; 0: the interrupted code goes on. SIGILL and SIGSEGV are faults
  // unless `code` says that somebody has sent them.
  std::uint64_t arrive(int signum, const void* pc, int code = 1) {
    context().pc = address_of(pc);
    siginfo_t info{};
    info.si_signo = signum;
    info.si_code = code;
    const signal_exit way = signal_dispatcher(signum, &info, &ucontext);
    EXPECT_EQ(way.entry, way.target == 0 ? 0 : thread->dispatcher_stub_addr);
    return way.target;
  }
  const std::uint8_t* stub(const std::uint8_t* place) const { return thread->code_cache + stub_offset(place); }
  void expect_at_dispatcher(std::uint64_t target, std::uint64_t sp_before) {
    EXPECT_EQ(context().pc, thread->dispatcher_stub_addr);
    EXPECT_EQ(context().regs[0], target);
    EXPECT_EQ(context().regs[1], 0u);  // No source, no link.
    EXPECT_EQ(context().sp, sp_before - 16);
  }
  // The exit is linked at its taken side, trapped by a signal in the block's body and run into with the context as it
  // is: where execution is led.
  std::uint64_t through_trap(const std::uint32_t* source, std::uint64_t taken) {
    const std::int32_t id = scan_block(source);
    dispatched(taken, id);
    const std::uint64_t x0 = context().regs[0];
    const std::uint64_t x1 = context().regs[1];
    arrive(SIGUSR1, block(id) + 1);
    EXPECT_THAT(words(meta(id).exit_code_addr, 2), testing::Each(HVC_149));
    const std::uint64_t sp = context().sp;
    EXPECT_EQ(arrive(SIGILL, meta(id).exit_code_addr), 0u);
    const std::uint64_t target = context().regs[0];
    expect_at_dispatcher(target, sp);
    EXPECT_EQ(reinterpret_cast<std::uint64_t*>(context().sp)[0], x0);
    EXPECT_EQ(reinterpret_cast<std::uint64_t*>(context().sp)[1], x1);
    context().regs[0] = x0;
    context().regs[1] = x1;
    context().sp = sp;
    return target;
  }

  ucontext_t ucontext{};
  alignas(16) std::uint64_t stack[128] = {};
};

}  // namespace ceilmeter::test
