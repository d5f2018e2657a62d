// A fixed list of thread ids: noting one allocates nothing. A list that is full waits until one of its threads is gone.
#include "bi/kernel/ending_threads.h"

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

constexpr std::size_t ENDING_THREADS_MAX = 64;

struct ending_thread_list {
  pthread_mutex_t lock;
  std::size_t count;
  std::int32_t tids[ENDING_THREADS_MAX];
};

ending_thread_list ending = {PTHREAD_MUTEX_INITIALIZER, 0, {}};

// The caller holds the lock.
void forget_gone_threads() {
  constexpr std::uint64_t no_signal = 0;
  const auto process = static_cast<std::uint64_t>(getpid());
  const auto is_gone = [process](std::int32_t tid) {
    return raw_syscall(SYS_tgkill, process, static_cast<std::uint64_t>(tid), no_signal) == -ESRCH;
  };
  auto* end = std::remove_if(ending.tids, ending.tids + ending.count, is_gone);
  ending.count = static_cast<std::size_t>(end - ending.tids);
}

// Whether at most `most` threads are left.
bool are_ending_at_most(std::size_t most) {
  pthread_mutex_lock(&ending.lock);
  if (ending.count > most) forget_gone_threads();
  const bool result = ending.count <= most;
  pthread_mutex_unlock(&ending.lock);
  return result;
}

}  // namespace

void wait_for_ending_threads(std::size_t most) {
  while (!are_ending_at_most(most)) sched_yield();
}

void note_ending_thread(std::int32_t tid) {
  for (bool noted = false; !noted;) {
    wait_for_ending_threads(ENDING_THREADS_MAX - 1);
    pthread_mutex_lock(&ending.lock);
    noted = ending.count < ENDING_THREADS_MAX;
    if (noted) ending.tids[ending.count++] = tid;
    pthread_mutex_unlock(&ending.lock);
  }
}

void forget_ending_thread(std::int32_t tid) {
  pthread_mutex_lock(&ending.lock);
  auto* end = std::remove(ending.tids, ending.tids + ending.count, tid);
  ending.count = static_cast<std::size_t>(end - ending.tids);
  pthread_mutex_unlock(&ending.lock);
}

// The lock may have been held by a thread that the child does not have.
void reset_ending_threads() {
  pthread_mutex_init(&ending.lock, nullptr);
  ending.count = 0;
}

}  // namespace ceilmeter
