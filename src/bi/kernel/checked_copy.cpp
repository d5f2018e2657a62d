// The portable half of the fault-tolerant copy: who may copy, and the exchange of the process's action for SIGSEGV.
// The leaf that may fault and the handler are assembly, one file for each architecture.
#include "bi/kernel/checked_copy.h"

#include <pthread.h>
#include <signal.h>
#include <ucontext.h>

#include <cstddef>
#include <cstdint>

#include "bi/containers/owned_lock.h"
#include "bi/kernel/checked_copy_offsets.h"

namespace ceilmeter {

static_assert(offsetof(siginfo_t, si_code) == SIGINFO_CODE_OFFSET);
#if defined(__aarch64__)
static_assert(offsetof(ucontext_t, uc_mcontext.pc) == UCONTEXT_PC_OFFSET);
#elif defined(__x86_64__)
static_assert(offsetof(ucontext_t, uc_mcontext.gregs[REG_RIP]) == UCONTEXT_PC_OFFSET);
#endif

extern "C" {

// In assembly. The kernel enters it, nothing calls it.
void checked_copy_handler(int signal, siginfo_t* info, void* context);

// The handler of the action that checked_copy replaced: a jump's target, or SIG_DFL or SIG_IGN as a number. Written
// before checked_copy_handler can be entered, and again, with the same value unless an action changed in between,
// after.
std::uintptr_t checked_copy_old_handler;

// Where checked_copy_handler goes with a signal that is not the copy's if there is no old handler to enter.
void checked_copy_default_action(int signal, siginfo_t* info, void* context);
}

namespace {

owned_lock copy_lock{};

// Pairs with the load in checked_copy_handler.
void note_old_handler(const struct sigaction& action) {
  const auto handler = reinterpret_cast<std::uintptr_t>(action.sa_sigaction);
  __atomic_store_n(&checked_copy_old_handler, handler, __ATOMIC_RELEASE);
}

int copy_with_handler(void* destination, const void* source, std::size_t size) {
  struct sigaction old {};
  if (sigaction(SIGSEGV, nullptr, &old) != 0) return -1;
  note_old_handler(old);

  // The old handler may be entered by way of ours: with the mask and the restarts that it asked for. In the engine the
  // signal stack is the engine's own, whatever the old action says; where a thread has none, the flag means nothing.
  struct sigaction ours = old;
  ours.sa_sigaction = checked_copy_handler;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | (old.sa_flags & (SA_NODEFER | SA_RESTART));
  if (sigaction(SIGSEGV, &ours, &old) != 0) return -1;
  note_old_handler(old);

  sigset_t segv;
  sigset_t old_mask;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  pthread_sigmask(SIG_UNBLOCK, &segv, &old_mask);
  const int result = byte_copy(destination, source, size);
  pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);

  sigaction(SIGSEGV, &old, nullptr);
  return result;
}

}  // namespace

extern "C" void checked_copy_default_action(int signal, siginfo_t* info, void*) {
  const bool raised_by_kernel = info->si_code > 0;
  // A sent signal can be ignored. A fault can not: the kernel itself takes the default action then.
  if (!raised_by_kernel && checked_copy_old_handler == reinterpret_cast<std::uintptr_t>(SIG_IGN)) return;
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  // The faulting instruction runs again. A sent signal has to be sent again; it waits until this handler returns.
  if (!raised_by_kernel) pthread_kill(pthread_self(), signal);
}

int checked_copy(void* destination, const void* source, std::size_t size) {
  owned_lock_take(&copy_lock);
  const int result = copy_with_handler(destination, source, size);
  owned_lock_leave(&copy_lock);
  return result;
}

void break_copy_lock(std::uint32_t tid) { owned_lock_break(&copy_lock, tid); }

}  // namespace ceilmeter
