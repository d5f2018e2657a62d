// sigaltstack of the application: what is kept, what is reported, and that the kernel keeps the engine's signal stack.
#include <sys/mman.h>
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "bi/code/stubs.h"
#include "bi/signals/application_stack.h"
#include "bi/signals/signal_stack.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t SIZE = 0x10000;
constexpr std::uint32_t AUTODISARM = 1U << 31;

class application_stacks : public syscalls_test {
 protected:
  application_stacks() { use_signal_stack(thread); }

  static stack_t stack_of(void* place, std::uint64_t size, std::uint32_t flags = 0) {
    stack_t stack;
    std::memset(&stack, 0, sizeof stack);
    stack.ss_sp = place;
    stack.ss_size = size;
    stack.ss_flags = static_cast<int>(flags);
    return stack;
  }
  std::int64_t set(const stack_t& wanted) { return handle_sigaltstack(thread, address_of(&wanted), 0, elsewhere); }
  std::int64_t set_at(const stack_t& wanted, const void* sp) {
    return handle_sigaltstack(thread, address_of(&wanted), 0, address_of(sp));
  }
  stack_t told(std::uint64_t sp = elsewhere) {
    stack_t stack;
    std::memset(&stack, 0x5a, sizeof stack);
    EXPECT_EQ(handle_sigaltstack(thread, 0, address_of(&stack), sp), 0);
    return stack;
  }
  // What the kernel itself answers. Afterwards the engine's stack is in force again.
  std::int64_t kernels_answer(const stack_t& wanted) {
    const std::int64_t answer = raw_syscall(SYS_sigaltstack, address_of(&wanted));
    use_signal_stack(thread);
    return answer;
  }
  void expect_engines_in_kernel() {
    stack_t now{};
    raw_syscall(SYS_sigaltstack, 0, address_of(&now));
    EXPECT_EQ(now.ss_sp, kernel_signal_stack(thread).ss_sp);
    EXPECT_EQ(now.ss_size, kernel_signal_stack(thread).ss_size);
  }

  static constexpr std::uint64_t elsewhere = 0x1000;
  alignas(16) static inline std::uint8_t place[SIZE];
};

TEST_F(application_stacks, a_thread_begins_without_one) {
  const stack_t stack = told();
  EXPECT_EQ(stack.ss_sp, nullptr);
  EXPECT_EQ(stack.ss_size, 0u);
  EXPECT_EQ(stack.ss_flags, SS_DISABLE);
}

TEST_F(application_stacks, one_that_is_set_is_told_and_never_reaches_the_kernel) {
  EXPECT_EQ(set(stack_of(place, SIZE)), 0);
  EXPECT_EQ(told().ss_sp, place);
  EXPECT_EQ(told().ss_size, SIZE);
  EXPECT_EQ(told().ss_flags, 0);
  expect_engines_in_kernel();
}

TEST_F(application_stacks, every_answer_to_flags_and_sizes_is_the_kernels) {
  for (const std::uint32_t flags : {0u, 1u, 2u, 3u, 4u, 0x100u, AUTODISARM, AUTODISARM | 1, AUTODISARM | 2, ~0u}) {
    for (const std::uint64_t size : {0ul, 1ul, 2047ul, 2048ul, 5119ul, 5120ul, 16384ul, 0x10000ul}) {
      const stack_t wanted = stack_of(place, size, flags);
      const std::int64_t answer = kernels_answer(wanted);
      clear_application_stack(thread);
      EXPECT_EQ(set(wanted), answer) << "flags " << flags << ", size " << size;
      expect_engines_in_kernel();
    }
  }
}

TEST_F(application_stacks, a_thread_on_its_stack_is_told_so_and_cannot_change_it) {
  set(stack_of(place, SIZE));
  EXPECT_EQ(told(address_of(place + SIZE)).ss_flags, SS_ONSTACK) << "the top belongs to it";
  EXPECT_EQ(told(address_of(place) + 1).ss_flags, SS_ONSTACK);
  EXPECT_EQ(told(address_of(place)).ss_flags, 0) << "its lowest address does not";
  EXPECT_EQ(told(address_of(place + SIZE) + 1).ss_flags, 0);
  EXPECT_EQ(set_at(stack_of(nullptr, 0, SS_DISABLE), place + 16), -EPERM);
  EXPECT_EQ(told().ss_sp, place);
}

TEST_F(application_stacks, a_disabled_one_is_forgotten) {
  set(stack_of(place, SIZE));
  EXPECT_EQ(set(stack_of(place, SIZE, SS_DISABLE)), 0);
  EXPECT_EQ(told().ss_sp, nullptr);
  EXPECT_EQ(told().ss_size, 0u);
}

TEST_F(application_stacks, a_refused_one_changes_nothing) {
  set(stack_of(place, SIZE));
  EXPECT_EQ(set(stack_of(place + 16, 1)), -ENOMEM);
  EXPECT_EQ(set(stack_of(place + 16, SIZE, 0x100)), -EINVAL);
  EXPECT_EQ(told().ss_sp, place);
}

TEST_F(application_stacks, an_address_that_cannot_be_used_is_a_fault_of_the_call) {
  const stack_t wanted = stack_of(place, SIZE);
  EXPECT_EQ(handle_sigaltstack(thread, 8, 0, elsewhere), -EFAULT);
  EXPECT_EQ(told().ss_sp, nullptr);
  EXPECT_EQ(handle_sigaltstack(thread, address_of(&wanted), 8, elsewhere), -EFAULT);
  EXPECT_EQ(told().ss_sp, place) << "the new stack is in force, as in the kernel";
}

TEST_F(application_stacks, the_padding_of_what_is_told_is_zero) {
  const stack_t stack = told();
  std::uint32_t padding = 1;
  std::memcpy(&padding, reinterpret_cast<const char*>(&stack) + 12, sizeof padding);
  EXPECT_EQ(padding, 0u);
}

TEST_F(application_stacks,
       a_frame_begins_at_the_stacks_end_for_an_action_that_wants_it_and_a_thread_that_is_not_on_it) {
  EXPECT_EQ(signal_frame_top(thread, elsewhere, true), elsewhere);
  set(stack_of(place, SIZE));
  EXPECT_EQ(signal_frame_top(thread, elsewhere, true), address_of(place + SIZE));
  EXPECT_EQ(signal_frame_top(thread, elsewhere, false), elsewhere);
  EXPECT_EQ(signal_frame_top(thread, address_of(place + 64), true), address_of(place + 64));
}

TEST_F(application_stacks, the_engines_stack_can_be_written_up_to_its_end_and_not_below_its_guard) {
  const stack_t engines = kernel_signal_stack(thread);
  auto* begin = static_cast<std::uint8_t*>(engines.ss_sp);
  EXPECT_EQ(permissions_at(address_of(begin - 1)), "---p");
  EXPECT_EQ(permissions_at(address_of(begin)), "rw-p");
  EXPECT_EQ(permissions_at(address_of(begin + engines.ss_size - 1)), "rw-p");
}

}  // namespace
}  // namespace ceilmeter::test
