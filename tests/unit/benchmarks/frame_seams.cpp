// The redirected calls. Several threads of the frame are in them at once.
#include "frame_seams.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace {

std::mutex calls_mutex;
std::vector<affinity_call> calls;
std::atomic<int> threads_created = 0;

}  // namespace

frame_seams& frame_seams::get() {
  static frame_seams seams;
  return seams;
}

std::vector<affinity_call> frame_seams::affinity_calls() {
  const std::lock_guard<std::mutex> lock(calls_mutex);
  return calls;
}

void frame_seams::reset() {
  get() = frame_seams();
  threads_created = 0;
  const std::lock_guard<std::mutex> lock(calls_mutex);
  calls.clear();
}

extern "C" {

int __real_sched_setaffinity(pid_t pid, std::size_t bytes, const cpu_set_t* set);
int __real_nanosleep(const timespec* wanted, timespec* left);
int __real_clock_gettime(clockid_t clock, timespec* now);

int __wrap_sched_setaffinity(pid_t pid, std::size_t bytes, const cpu_set_t* set) {
  int result = -1;
  int error = 0;
  if (frame_seams::get().pinning_error) {
    error = *frame_seams::get().pinning_error;
  } else {
    result = __real_sched_setaffinity(pid, bytes, set);
    error = errno;
  }
  {
    const std::lock_guard<std::mutex> lock(calls_mutex);
    calls.push_back({pid, bytes, *set, result});
  }
  errno = error;
  return result;
}

int __wrap_nanosleep(const timespec* wanted, timespec* left) {
  const timespec asked = *wanted;  // Both may be the same.
  return frame_seams::get().sleep ? frame_seams::get().sleep(asked, left) : __real_nanosleep(&asked, left);
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  if (frame_seams::get().before_clock) frame_seams::get().before_clock();
  const int result = __real_clock_gettime(clock, now);
  if (frame_seams::get().after_clock) frame_seams::get().after_clock();
  return result;
}

// The standard library asks the C library through these two.

int get_nprocs() noexcept {
  if (frame_seams::get().processors) return *frame_seams::get().processors;
  static const auto real = reinterpret_cast<int (*)()>(dlsym(RTLD_NEXT, "get_nprocs"));
  return real();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept {
  static const auto real = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  const auto& allowed = frame_seams::get().threads_to_allow;
  if (allowed && threads_created++ >= *allowed) return EAGAIN;
  return real(thread, attributes, body, argument);
}

}  // extern "C"

int frame_seams::real_sleep(const timespec& wanted, timespec* left) { return __real_nanosleep(&wanted, left); }
