// faults [ROUNDS]: handlers of faults. They jump out, or send the program on to another place. The registers that they
// find are those of the fault. A division by zero is no fault. A fault's signal that somebody has sent is a signal like
// any other.
#include <pthread.h>
#include <setjmp.h>
#include <stdatomic.h>
#include <stdint.h>
#include <string.h>
#include <sys/prctl.h>
#include <ucontext.h>

#include "guard.h"

static sigjmp_buf out;
static volatile int came;
static void* volatile address;
static volatile unsigned long x19;
static volatile int jumps;

extern char skip_load[], skip_brk[], skip_udf[];
static char* volatile go_on_at;

static void handle(int number, siginfo_t* info, void* context) {
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  came = number;
  address = info->si_addr;
  x19 = state->regs[19];
  if (jumps) siglongjmp(out, 1);
  state->pc = (unsigned long)go_on_at;
}

__attribute__((noinline)) static void load_from(const void* place) {
  __asm__ volatile(
      "mov x19, #0x5678\n\t"
      "ldr x0, [%0]\n"
      ".globl skip_load\n"
      "skip_load:" ::"r"(place)
      : "x0", "x19", "memory");
}

__attribute__((noinline)) static void stop_here(void) {
  __asm__ volatile("mov x19, #0x5678\n\tbrk #1\n.globl skip_brk\nskip_brk:" ::: "x19", "memory");
}

__attribute__((noinline)) static void undefined(void) {
  __asm__ volatile("mov x19, #0x5678\n\tb 1f\n1: udf #7\n.globl skip_udf\nskip_udf:" ::: "x19", "memory");
}

static void* unmapped;
static char* beyond;

static void cause(int number) {
  switch (number) {
    case SIGSEGV:
      go_on_at = skip_load;
      load_from(unmapped);
      break;
    case SIGBUS:
      go_on_at = skip_load;
      load_from(beyond);
      break;
    case SIGTRAP:
      go_on_at = skip_brk;
      stop_here();
      break;
    default:
      go_on_at = skip_udf;
      undefined();
      break;
  }
}

static void fault(int number) {
  came = 0;
  x19 = 0;
  if (sigsetjmp(out, 1) == 0) {
    cause(number);
    CHECK(!jumps);
  } else {
    CHECK(jumps);
  }
  CHECK(came == number && x19 == 0x5678);
  if (number == SIGSEGV) CHECK(address == unmapped);
  if (number == SIGBUS) CHECK(address == beyond);
  sigset_t now;
  CHECK(sigprocmask(SIG_SETMASK, NULL, &now) == 0 && !sigismember(&now, number));
}

static void divide(void) {
  volatile int zero = 0;
  long quotient = 1;
  __asm__ volatile("sdiv %0, %1, %2" : "=r"(quotient) : "r"(5L), "r"((long)zero));
  CHECK(quotient == 0);
}

static const int numbers[] = {SIGSEGV, SIGBUS, SIGTRAP, SIGILL};
static const char* const names[] = {"SIGSEGV", "SIGBUS", "SIGTRAP", "SIGILL"};

// The same signal numbers, but sent to a thread that computes, one after another.
static atomic_int heard;
static atomic_int computing;
static void hear(int number, siginfo_t* info, void* context) {
  (void)context;
  if (info->si_signo == number && info->si_code <= 0) atomic_fetch_add(&heard, 1);
}

static void* compute(void* argument) {
  volatile long steps = 0;
  atomic_store(&computing, 1);
  while (atomic_load(&computing)) ++steps;
  return argument;
}

static void sent(void) {
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, compute, NULL) == 0);
  while (!atomic_load(&computing)) sched_yield();
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = hear;
  atomic_store(&heard, 0);
  for (int index = 0; index < 4; ++index) {
    CHECK(sigaction(numbers[index], &action, NULL) == 0);
    CHECK(pthread_kill(thread, numbers[index]) == 0);
    while (atomic_load(&heard) <= 2 * index) sched_yield();
    CHECK(raise(numbers[index]) == 0);
    CHECK(atomic_load(&heard) == 2 * index + 2);
  }
  atomic_store(&computing, 0);
  CHECK(pthread_join(thread, NULL) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  const long page = sysconf(_SC_PAGESIZE);
  unmapped = mmap(NULL, (size_t)page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const int file = memfd_create("short", 0);
  CHECK(unmapped != MAP_FAILED && file >= 0);
  beyond = mmap(NULL, (size_t)page, PROT_READ, MAP_SHARED, file, 0);
  CHECK(beyond != MAP_FAILED);
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = handle;
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (jumps = 0; jumps < 2; ++jumps) {
      for (int index = 0; index < 4; ++index) {
        CHECK(sigaction(numbers[index], &action, NULL) == 0);
        fault(numbers[index]);
        if (round == 0) printf("%s: handler %s\n", names[index], jumps ? "jumps" : "sends on");
      }
    }
    divide();
    sent();
  }
  puts("no SIGFPE; sent ones are heard");
  return 0;
}
