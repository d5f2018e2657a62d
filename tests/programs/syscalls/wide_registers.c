// System calls with something in the high halves of the registers that hold their number and their int arguments. The
// kernel reads 32 bits. The last call ends the program.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "check.h"

static const uint64_t high = 0x1234500000000;

static long call(uint64_t number, uint64_t a0, uint64_t a1, uint64_t a2) {
  register uint64_t x8 asm("x8") = number;
  register uint64_t x0 asm("x0") = a0;
  register uint64_t x1 asm("x1") = a1;
  register uint64_t x2 asm("x2") = a2;
  asm volatile("svc #0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2) : "memory");
  return (long)x0;
}

int main(void) {
  CHECK(call(high | SYS_getpid, 0, 0, 0) == getpid());
  int ends[2];
  CHECK(pipe(ends) == 0);
  CHECK(call(high | SYS_write, high | (unsigned)ends[1], (uintptr_t) "abc", 3) == 3);
  char text[4] = "";
  CHECK(read(ends[0], text, 3) == 3 && text[2] == 'c');

  // A number that was closed is the next one that a duplicate gets.
  CHECK(call(high | SYS_close, high | 0, 0, 0) == 0);
  CHECK(call(high | SYS_fcntl, high | (unsigned)ends[0], high | F_DUPFD, high | 0) == 0);
  CHECK(call(high | SYS_close, high | (unsigned)ends[0], 0, 0) == 0);
  CHECK(fcntl(ends[0], F_GETFD) == -1 && errno == EBADF);

  const uint64_t at = (uint64_t)call(high | SYS_brk, 0, 0, 0);
  CHECK(at == (uint64_t)(uintptr_t)sbrk(0));
  puts("32 bits are read");
  fflush(stdout);
  call(high | SYS_exit_group, high | 7, 0, 0);
  return 1;
}
