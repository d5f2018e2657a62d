// Writes code with one of the steps left out that a processor needs before it may execute it, and executes it, so that
// the plug-in cache_coherence has something to find. Each round writes another constant.
//
//   unclean_code STEP    STEP is what is left out: none, clean, first_barrier, invalidation, second_barrier,
//                        synchronisation; or `forked`: a child runs what its parent has left unclean, at the same place
#define _GNU_SOURCE
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

enum { ROUNDS = 200, CACHE_SIZE = 16 << 20 };

static const char* left_out;

static int does(const char* step) { return strcmp(left_out, step) != 0; }

static void write_code(uint32_t* code, uint32_t value) {
  code[0] = 0x52800000 | value << 5;  // mov w0, #value
  code[1] = 0xd65f03c0;               // ret
  // Both words, whatever the size of a line.
  if (does("clean")) __asm__ volatile("dc cvau, %0\n\tdc cvau, %1" ::"r"(code), "r"(code + 1) : "memory");
  if (does("first_barrier")) __asm__ volatile("dsb ish" ::: "memory");
  if (does("invalidation")) __asm__ volatile("ic ivau, %0\n\tic ivau, %1" ::"r"(code), "r"(code + 1) : "memory");
  if (does("second_barrier")) __asm__ volatile("dsb ish" ::: "memory");
  if (does("synchronisation")) __asm__ volatile("isb" ::: "memory");
}

int main(int count, char** arguments) {
  if (count != 2) return 2;
  left_out = arguments[1];
  uint32_t* code = mmap(NULL, CACHE_SIZE, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (code == MAP_FAILED) return 2;
  uint32_t (*run)(void);
  memcpy(&run, &code, sizeof run);
  for (uint32_t round = 0; round < ROUNDS; ++round) {
    write_code(code, round);
    if (run() != round) return 1;
  }
  if (does("forked")) return 0;
  code[0] = 0x52800000 | 7 << 5;
  // The page that the child runs is its own, and the kernel's business.
  const pid_t child = fork();
  if (child == 0) _exit((int)run());
  int status = 0;
  if (waitpid(child, &status, 0) != child) return 1;
  return WIFEXITED(status) && WEXITSTATUS(status) == 7 ? 0 : 1;
}
