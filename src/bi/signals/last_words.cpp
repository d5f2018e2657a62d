#include "bi/signals/last_words.h"

#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <cstdio>
#include <cstring>

#include "bi/code/code_cache.h"
#include "bi/code/fragment_dump.h"
#include "bi/code/source_map.h"
#include "bi/kernel/module_name.h"
#include "bi/signals/signal_actions.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/last_words"};

constexpr std::size_t NAME_SIZE = 256;
constexpr std::size_t PLACE_SIZE = NAME_SIZE + 128;
constexpr int ACCESS_FAULTS[] = {SIGSEGV, SIGBUS};

struct fault_place {
  const siginfo_t* info;
  const mcontext_t* context;
};

// Set by the thread that tells, before the handler below can be entered.
sigjmp_buf way_back;
pid_t teller;
bool told;  // Atomic. Relaxed: no other data depends on it.

void leave_damaged_records(int) {
  // The teller ends the process. Until then nothing else of the application's or of the engine's may run.
  while (gettid() != teller) pause();
  siglongjmp(way_back, 1);
}

void set_actions(void (*handler)(int)) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signum : ACCESS_FAULTS) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(signum, &action, nullptr);
    sigaddset(&signals, signum);
  }
  // The thread may be in the handler of one of them. A fault while its signal is blocked ends the process at once.
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Calls `words` unless the process has told before. Afterwards a fault of any thread's ends the process by its signal:
// one in the fatal line cannot come back here.
void tell(void (*words)(const thread_data* thread, const fault_place& place), const thread_data* thread,
          const fault_place& place) {
  if (thread == nullptr || thread->code_cache == nullptr) return;
  if (std::atomic_ref(told).exchange(true, std::memory_order_relaxed)) return;
  teller = gettid();
  // volatile-free on purpose: nothing that changes between the two returns is read after the second.
  if (sigsetjmp(way_back, 0) == 0) {
    set_actions(leave_damaged_records);
    words(thread, place);
  } else {
    log(LEVEL_WARN, "the records of the thread cannot be read any further");
  }
  set_actions(SIG_DFL);
}

// The fragment that was scanned last, or is being scanned: of the trace under construction, else of the blocks. 0:
// none.
std::int32_t newest_fragment(const thread_data* thread) {
  const trace_state& trace = thread->active_trace;
  if (trace.active != 0 && trace.id > BB_COUNT) return trace.id - 1;
  std::int32_t id = thread->next_block - 1;
  while (id >= stub_block_count() && thread->metas[id].parent_block != 0) id = thread->metas[id].parent_block;
  return id >= stub_block_count() ? id : 0;
}

void tell_newest_fragment(const thread_data* thread, const fault_place&) {
  const std::int32_t id = newest_fragment(thread);
  if (id == 0) return;
  const std::uint64_t source = thread->metas[id].source_addr;
  char module[NAME_SIZE];
  name_module(source, module, sizeof module);
  log(LEVEL_WARN, "thread %d: the newest fragment is %d, of source 0x%lx, %s", thread->tid, id, source, module);
  log_fragment(thread, id);
}

// Describes a place in a fragment. The source address is 0 where no source word stands behind the place.
void describe_cache_place(const thread_data* thread, std::uint64_t place, char* text, std::size_t size) {
  const std::uint64_t source = source_of_cache_address(thread, place);
  char module[NAME_SIZE];
  name_module(source, module, sizeof module);
  std::snprintf(text, size, "fragment %d at 0x%lx, of source 0x%lx, %s", exit_owner(thread, place), place, source,
                module);
}

void tell_fragment(const thread_data* thread, const char* what, std::uint64_t place) {
  char text[PLACE_SIZE];
  describe_cache_place(thread, place, text, sizeof text);
  log(LEVEL_WARN, "%s %s", what, text);
  const std::int32_t id = exit_owner(thread, place);
  if (id > 0) log_fragment(thread, id);
}

void tell_signal(const fault_place& place) {
  char module[NAME_SIZE];
  name_module(place.context->pc, module, sizeof module);
  log(LEVEL_WARN, "signal %d, SIG%s (code %d, address %p) at pc 0x%llx, %s", place.info->si_signo,
      sigabbrev_np(place.info->si_signo), place.info->si_code, place.info->si_addr, place.context->pc, module);
}

void tell_fault(const thread_data* thread, const fault_place& place) {
  tell_signal(place);
  const std::uint64_t caller = place.context->regs[30];
  if (is_code_address(thread, caller)) {
    tell_fragment(thread, "called from", caller);
  } else {
    tell_newest_fragment(thread, place);
  }
}

void tell_crash(const thread_data* thread, const fault_place& place) {
  tell_signal(place);
  // In the copy of the stubs, only an access to the application's stack can fault.
  const std::uint64_t pc = place.context->pc;
  if (is_code_address(thread, pc)) tell_fragment(thread, "it ends the application in", pc);
}

void tell_before_fatal() {
  if (log_state::engine_log_level >= LEVEL_WARN) tell(tell_newest_fragment, current_thread, {});
}

}  // namespace

void install_last_words() { log_state::before_engine_fatal = tell_before_fatal; }

void log_fault(const thread_data* thread, const siginfo_t& info, const mcontext_t& context) {
  if (log_state::engine_log_level >= LEVEL_WARN) tell(tell_fault, thread, {&info, &context});
}

void log_crash(const thread_data* thread, const siginfo_t& info, const mcontext_t& context) {
  if (log_state::engine_log_level >= LEVEL_INFO) tell(tell_crash, thread, {&info, &context});
}

}  // namespace ceilmeter

extern "C" const char* describe_place(unsigned long address) {
  using namespace ceilmeter;
  static char text[PLACE_SIZE];
  // Without the lock of the list: the debugger has stopped all threads, maybe one with the lock.
  for (const thread_data* thread = engine.thread_list; thread != nullptr; thread = thread->next) {
    if (!is_code_address(thread, address)) continue;
    describe_cache_place(thread, address, text, sizeof text);
    return text;
  }
  char module[NAME_SIZE];
  name_module(address, module, sizeof module);
  std::snprintf(text, sizeof text, "0x%lx, %s", address, module);
  return text;
}
