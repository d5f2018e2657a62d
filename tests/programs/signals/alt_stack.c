// Handlers on a stack of their own: alt_stack [ROUNDS]. In loops, in calls, and when the stack itself has run out.
#include <setjmp.h>
#include <stdint.h>
#include <sys/resource.h>

#include "guard.h"

enum { STACK = 128 * 1024 };
static char* stack;
static volatile int on_it;
static volatile int elsewhere;
static sigjmp_buf out;

static int is_on_stack(const void* place) {
  return (uintptr_t)place >= (uintptr_t)stack && (uintptr_t)place < (uintptr_t)stack + STACK;
}

static void tick(int number) {
  char here;
  stack_t now;
  timer_ticked();
  if (number == SIGALRM && is_on_stack(&here) && sigaltstack(NULL, &now) == 0 && (now.ss_flags & SS_ONSTACK))
    ++on_it;
  else
    ++elsewhere;
}

static void overflow(int number, siginfo_t* info, void* context) {
  char here = 0;
  (void)context;
  if (number == SIGSEGV && info->si_addr != NULL && is_on_stack(&here)) siglongjmp(out, 1);
  _exit(3);
}

__attribute__((noinline)) static long deeper(long depth) {
  volatile char room[256];
  room[0] = (char)depth;
  if (depth < 0) return 0;  // Not before the stack is at its end.
  return deeper(depth + 1) + room[0];
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  stack = mmap(NULL, STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED);
  const stack_t given = {.ss_sp = stack, .ss_size = STACK};
  CHECK(sigaltstack(&given, NULL) == 0);
  struct sigaction action = {.sa_flags = SA_ONSTACK};
  action.sa_handler = tick;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    on_it = 0;
    timer_set(1000);
    volatile long steps = 0;
    while (on_it < 3) ++steps;
    while (on_it < 6) steps += getppid();
    CHECK(pause() == -1);
    timer_set(0);
    CHECK(on_it >= 7 && elsewhere == 0);
    stack_t now;
    CHECK(sigaltstack(NULL, &now) == 0 && now.ss_flags == 0);
  }
  puts("handlers on their own stack");
  if (argc > 2) {  // Needs a handler that finds room where the program has none left.
    struct sigaction last = {.sa_flags = SA_ONSTACK | SA_SIGINFO};
    last.sa_sigaction = overflow;
    CHECK(sigaction(SIGSEGV, &last, NULL) == 0);
    if (sigsetjmp(out, 1) == 0) {
      const long result = deeper(1);
      printf("%ld\n", result);
    }
    puts("out of an overflow");
  }
  return 0;
}
