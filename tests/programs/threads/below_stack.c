// Threads as language run times make them. One finds its arguments below its stack pointer, and all registers of its
// parent. Another unmaps its own stack before it ends. A third uses no stack and has none below its stack pointer.
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "syscalls/check.h"

enum { STACK_SIZE = 65536, FLAGS = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM };

extern volatile uint64_t answer[16];
long start_bare(long flags, void* stack, int* tid);
long start_spinning(long flags, void* stack, int* tid, volatile int* words, const stack_t* signals);
_Noreturn void unmap_and_exit(void* memory, long size);

static int tid;

static void wait_for_end(void) {
  for (int value = 0; (value = __atomic_load_n(&tid, __ATOMIC_ACQUIRE)) != 0;) {
    syscall(SYS_futex, &tid, FUTEX_WAIT, value, NULL, NULL, 0);
  }
}

static void* new_stack(void) {
  void* stack = mmap(NULL, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  return stack;
}

static double as_double(uint64_t word) {
  double value = 0;
  memcpy(&value, &word, sizeof value);
  return value;
}

static void arguments_below(void) {
  unsigned char* stack = new_stack();
  tid = 1;
  CHECK(start_bare(FLAGS | CLONE_CHILD_CLEARTID, stack + STACK_SIZE - 4096, &tid) > 0);
  wait_for_end();
  printf("registers: %d %d %d %d %d %d %g %g\n", (int)answer[0], (int)answer[1], (int)answer[2], (int)answer[3],
         (int)answer[4], (int)answer[5], as_double(answer[6]), as_double(answer[7]));
  printf("below the stack pointer: %d %d %d %d %d %d\n", (int)answer[8], (int)answer[9], (int)answer[10],
         (int)answer[11], (int)answer[12], (int)answer[13]);
  memset((void*)answer, 0, sizeof answer);
  CHECK(munmap(stack, STACK_SIZE) == 0);
}

static int unmapping(void* stack) { unmap_and_exit(stack, STACK_SIZE); }

static void own_stack(void) {
  unsigned char* stack = new_stack();
  tid = 1;
  CHECK(clone(unmapping, stack + STACK_SIZE, FLAGS | CLONE_CHILD_CLEARTID, stack, NULL, NULL, &tid) > 0);
  wait_for_end();
  // All of the stack is unmapped: its place can be mapped again.
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
  void* again = mmap(stack, STACK_SIZE, PROT_READ | PROT_WRITE, flags, -1, 0);
  CHECK(again == stack);
  CHECK(munmap(stack, STACK_SIZE) == 0);
}

// Natively nothing faults here. Where something that is added to the thread does, its handler finds the stack pointer
// as the thread has it.
enum { PAGE = 65536 };  // The largest one there is.
static unsigned char* refused;
static volatile int words[2];
static volatile unsigned long long faulted_sp;

static void allow(int number, siginfo_t* info, void* context) {
  (void)number, (void)info;
  faulted_sp = ((ucontext_t*)context)->uc_mcontext.sp;
  mprotect(refused, PAGE, PROT_READ | PROT_WRITE);
}

static void nothing_below(void) {
  static unsigned char signals[65536];
  const stack_t stack = {.ss_sp = signals, .ss_size = sizeof signals};
  const struct sigaction action = {.sa_sigaction = allow, .sa_flags = SA_SIGINFO | SA_ONSTACK};
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  refused = mmap(NULL, 2 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(refused != MAP_FAILED);
  unsigned char* sp = refused + PAGE + 64;
  words[0] = words[1] = 0;
  tid = 1;
  CHECK(start_spinning(FLAGS | CLONE_CHILD_CLEARTID, sp, &tid, words, &stack) > 0);
  while (words[0] == 0) sched_yield();
  CHECK(mprotect(refused, PAGE, PROT_READ) == 0);
  usleep(20000);
  words[1] = 1;
  wait_for_end();
  const unsigned long long expected = (unsigned long long)(uintptr_t)sp;
  if (faulted_sp != 0 && faulted_sp != expected) printf("the stack pointer is off by %lld\n", faulted_sp - expected);
  CHECK(munmap(refused, 2 * PAGE) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 20);
  for (int round = 0; round < rounds; ++round) {
    if (round < 2) arguments_below();
    if (round < 2) nothing_below();
    own_stack();
  }
  puts("every thread ended");
  return 0;
}
