// A call that is not listed here and has a case in act_on_syscall would never come there.
#include "bi/kernel/quick_calls.h"

#include <sys/syscall.h>

#include <algorithm>
#include <array>

#include "bi/kernel/call_mask.h"
#include "bi/kernel/executable_path.h"
#include "bi/plugins/plugin_delivery.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

static_assert(THREAD_IN_SYSCALL == 1 && THREAD_RUNNING == 0, "the stub text stores both as they are");

// The calls of act_on_syscall and of settle_descriptor. Those that may have an argument replaced have tables of their
// own.
constexpr std::uint64_t acted_on[] = {
    SYS_dup,          SYS_dup3,        SYS_fcntl,           SYS_close,       SYS_readlinkat,
    SYS_exit,         SYS_exit_group,  SYS_set_tid_address, SYS_sigaltstack, SYS_rt_sigaction,
    SYS_rt_sigreturn, SYS_shmat,       SYS_shmdt,           SYS_socket,      SYS_accept,
    SYS_brk,          SYS_munmap,      SYS_mremap,          SYS_clone,       SYS_mmap,
    SYS_mprotect,     SYS_accept4,     SYS_membarrier,      SYS_clone3,      SYS_rseq,
    SYS_prctl,        SYS_CLOSE_RANGE, SYS_mlockall,
};

constexpr std::array<std::uint8_t, QUICK_CALL_NUMBERS> passed_on = [] {
  std::array<std::uint8_t, QUICK_CALL_NUMBERS> quick{};
  quick.fill(1);
  for (const std::uint64_t number : acted_on) quick[number] = 0;
  for (const mask_place& place : mask_places) quick[place.number] = 0;
  for (const path_place& place : path_places) quick[place.number] = 0;
  return quick;
}();

}  // namespace

extern "C" {
std::uint8_t quick_calls[QUICK_CALL_NUMBERS];
}

bool is_passed_on(std::uint64_t number) { return number >= QUICK_CALL_NUMBERS || passed_on[number] != 0; }

void allow_quick_calls() {
  if (engine_logs_traces() || is_event_bound(MORA_PRE_SYSCALL) || is_event_bound(MORA_POST_SYSCALL)) return;
  std::copy(passed_on.begin(), passed_on.end(), quick_calls);
}

}  // namespace ceilmeter
