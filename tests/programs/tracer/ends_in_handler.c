// Ends inside a signal handler, as crash handlers do, on an alternate stack with nothing mapped around it. The argument
// is how many bytes the stack has beyond the smallest one that a handler can have: with 11264 it is one of 16 KiB, the
// size that programs usually take, where a signal's frame has no vector registers beyond 128 bits.
#define _GNU_SOURCE
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

enum { guard = 65536 };

static void end(int signal_number) {
  (void)signal_number;
  _exit(5);
}

int main(int argc, char** argv) {
  if (argc != 2) return 1;
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  const size_t least = (size_t)sysconf(_SC_MINSIGSTKSZ) + strtoul(argv[1], NULL, 10);
  const size_t size = (least + page - 1) / page * page;
  char* place = mmap(NULL, size + 2 * (size_t)guard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED || mprotect(place + guard, size, PROT_READ | PROT_WRITE) != 0) return 1;
  const stack_t stack = {.ss_sp = place + guard, .ss_size = size};
  struct sigaction action = {.sa_handler = end, .sa_flags = SA_ONSTACK};
  if (sigaltstack(&stack, NULL) != 0 || sigaction(SIGTERM, &action, NULL) != 0) return 1;
  volatile double value = 1;
  for (int round = 0; round < 1000; ++round) value = value * 0.5 + 1;
  raise(SIGTERM);
  return 2;
}
