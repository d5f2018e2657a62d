// Tells which of the A64 words on standard input (binary, 4 bytes each) the processor executes: a '1' or '0' each on
// standard output. '0' stands for any signal that a word raises. Words may change general registers 2 to 7, vector
// and predicate registers, flags, and memory around the address in x2; they may not branch.
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <ucontext.h>

enum { MOST_WORDS = 1 << 18, MEMORY_SIZE = 1 << 18 };

static volatile sig_atomic_t refused;
static uint32_t words[MOST_WORDS];
static unsigned char memory[MEMORY_SIZE] __attribute__((aligned(4096)));

static void skip_word(int signum, siginfo_t* info, void* context) {
  (void)signum;
  (void)info;
  refused = 1;
  ((ucontext_t*)context)->uc_mcontext.pc += 4;
}

static void execute(const uint32_t* code) {
  register const uint32_t* where __asm__("x9") = code;
  register uint64_t base __asm__("x2") = (uint64_t)(uintptr_t)(memory + MEMORY_SIZE / 2);
  register uint64_t index __asm__("x3") = 16;
  __asm__ volatile("blr %0"
                   : "+r"(where), "+r"(base), "+r"(index)
                   :
                   : "x0", "x1", "x4", "x5", "x6", "x7", "x8", "x10", "x11", "x12", "x13", "x14", "x15", "x16", "x17",
                     "x18", "x19", "x20", "x21", "x22", "x23", "x24", "x25", "x26", "x27", "x28", "x30", "v0", "v1",
                     "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12", "v13", "v14", "v15", "v16",
                     "v17", "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", "v28", "v29", "v30",
                     "v31", "cc", "memory");
}

int main(void) {
  const uint32_t ret = 0xd65f03c0;
  const size_t count = fread(words, sizeof words[0], MOST_WORDS, stdin);
  uint32_t* code = mmap(NULL, count * 8 + 8, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (code == MAP_FAILED || !feof(stdin)) {
    fputs("probe: too many words\n", stderr);
    return 1;
  }
  for (size_t i = 0; i < count; ++i) {
    code[2 * i] = words[i];
    code[2 * i + 1] = ret;
  }
  __builtin___clear_cache((char*)code, (char*)(code + 2 * count));
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = skip_word;
  action.sa_flags = SA_SIGINFO;
  const int signals[] = {SIGILL, SIGSEGV, SIGBUS, SIGTRAP, SIGFPE};
  for (size_t i = 0; i < sizeof signals / sizeof signals[0]; ++i) sigaction(signals[i], &action, NULL);
  for (size_t i = 0; i < count; ++i) {
    refused = 0;
    execute(code + 2 * i);
    putchar(refused ? '0' : '1');
  }
  return fflush(stdout) == 0 ? 0 : 1;
}
