// Branches to addresses whose top byte is not 0, which a branch ignores: the code behind them finds a pc without it,
// and so does a signal's handler.
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/time.h>
#include <ucontext.h>

#include "../syscalls/check.h"

static const uint64_t TAG = (uint64_t)0x5a << 56;

static volatile int flag;
static volatile uint64_t seen_pc;

static void on_alarm(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  seen_pc = ((ucontext_t*)context)->uc_mcontext.pc;
  flag = 1;
}

__attribute__((noinline)) static uint64_t own_place(void) {
  uint64_t place;
  __asm__ volatile("adr %0, ." : "=r"(place));
  return place;
}

static uint64_t tagged(uint64_t address) { return address | TAG; }

// Calls by BLR, and returns by a RET whose register has a tag.
static uint64_t call_tagged(void) {
  uint64_t place = 0;
  __asm__ volatile(
      "adr x1, 1f\n"
      "orr x1, x1, %1\n"
      "blr x1\n"
      "b 2f\n"
      "1: adr %0, 1b\n"
      "orr x30, x30, %1\n"
      "ret\n"
      "2:\n"
      : "=&r"(place)
      : "r"(TAG)
      : "x1", "x30", "memory");
  return place;
}

static void loop_tagged(void) {
  __asm__ volatile(
      "adr x1, 1f\n"
      "orr x1, x1, %1\n"
      "1: ldr w2, [%0]\n"
      "cbnz w2, 2f\n"
      "br x1\n"
      "2:\n"
      :
      : "r"(&flag), "r"(TAG)
      : "x1", "x2", "memory");
}

int main(void) {
  uint64_t (*function)(void) = own_place;
  uint64_t address;
  memcpy(&address, &function, sizeof address);
  const uint64_t plain = function();
  address = tagged(address);
  memcpy(&function, &address, sizeof address);
  for (int round = 0; round < 1000; ++round) {
    CHECK(function() == plain);
    CHECK(call_tagged() >> 56 == 0);
  }
  puts("code behind tagged branches finds its place without the tag");
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = on_alarm;
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  for (int round = 0; round < 20; ++round) {
    flag = 0;
    const struct itimerval soon = {{0, 0}, {0, 2000}};
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    loop_tagged();
    CHECK(seen_pc >> 56 == 0);
  }
  puts("and so does a handler");
  return 0;
}
