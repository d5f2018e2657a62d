// Calls with a signal mask of their own. The kernel never blocks SIGILL for one, and the application does not notice.
#include "bi/kernel/call_mask.h"

#include <sys/mman.h>
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>

#include "bi/code/stubs.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t SIGILL_BIT = std::uint64_t{1} << (SIGILL - 1);
constexpr std::uint64_t EPOLL_PWAIT2 = 441;

struct call_place {
  const char* name;
  std::uint64_t number;
  std::uint32_t argument;
  bool is_pair;
};

class call_masks : public syscalls_test, public testing::WithParamInterface<call_place> {
 protected:
  std::uint64_t mask = ~std::uint64_t{0};
  std::uint64_t pair[2] = {address_of(&mask), 8};

  std::uint64_t given() const { return GetParam().is_pair ? address_of(pair) : address_of(&mask); }
  std::uint64_t make() {
    for (std::uint64_t word = 0; word < 22; ++word) args[word] = 0xb000 + word;
    args[3] = 8;  // The size of sigprocmask's; not looked at in other calls.
    args[GetParam().argument] = given();
    EXPECT_EQ(syscall_handler_pre(GetParam().number, args, next_inst, thread), 1u);
    return args[GetParam().argument];
  }
  // The mask that the kernel would read.
  static std::uint64_t read_mask(std::uint64_t argument) {
    const auto* words = reinterpret_cast<const std::uint64_t*>(argument);
    return GetParam().is_pair ? *reinterpret_cast<const std::uint64_t*>(words[0]) : words[0];
  }
};

TEST_P(call_masks, the_kernel_gets_everything_but_sigill) {
  const std::uint64_t argument = make();
  EXPECT_EQ(read_mask(argument), ~SIGILL_BIT);
  if (GetParam().is_pair) {
    EXPECT_EQ(reinterpret_cast<const std::uint64_t*>(argument)[1], 8u);
  }
  EXPECT_EQ(mask, ~std::uint64_t{0}) << "the application's own mask is not touched";
}

TEST_P(call_masks, a_mask_without_sigill_is_given_as_it_is) {
  mask = ~SIGILL_BIT;
  EXPECT_EQ(make(), given());
}

TEST_P(call_masks, after_the_call_the_application_has_its_argument_again) {
  make();
  args[0] = 0x77;  // Its result.
  syscall_handler_post(GetParam().number, args, next_inst, thread);
  if (GetParam().argument != 0) {
    EXPECT_EQ(args[GetParam().argument], given());
  }
  EXPECT_EQ(thread->replaced_argument, 0u);
}

TEST_P(call_masks, a_result_in_x0_is_not_overwritten) {
  make();
  args[0] = static_cast<std::uint64_t>(-EINTR);
  syscall_handler_post(GetParam().number, args, next_inst, thread);
  EXPECT_EQ(args[0], static_cast<std::uint64_t>(-EINTR));
}

TEST_P(call_masks, a_call_that_is_made_anew_has_its_argument_again) {
  make();
  fake.signal_is_deliverable = true;
  EXPECT_EQ(syscall_held_signals(GetParam().number, args, next_inst, thread), 0u);
  EXPECT_EQ(args[GetParam().argument], given());
}

TEST_P(call_masks, an_address_that_cannot_be_read_is_left_to_the_kernel) {
  for (std::uint64_t word = 0; word < 22; ++word) args[word] = 0;
  args[3] = 8;
  void* nothing = mmap(nullptr, fake.page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  args[GetParam().argument] = address_of(nothing);
  EXPECT_EQ(syscall_handler_pre(GetParam().number, args, next_inst, thread), 1u);
  EXPECT_EQ(args[GetParam().argument], address_of(nothing));
  munmap(nothing, fake.page);
}

INSTANTIATE_TEST_SUITE_P(calls, call_masks,
                         testing::Values(call_place{"sigsuspend", SYS_rt_sigsuspend, 0, false},
                                         call_place{"sigprocmask", SYS_rt_sigprocmask, 1, false},
                                         call_place{"ppoll", SYS_ppoll, 3, false},
                                         call_place{"epoll_pwait", SYS_epoll_pwait, 4, false},
                                         call_place{"epoll_pwait2", EPOLL_PWAIT2, 4, false},
                                         call_place{"pselect6", SYS_pselect6, 5, true},
                                         call_place{"io_pgetevents", SYS_io_pgetevents, 5, true}),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace ceilmeter::test
