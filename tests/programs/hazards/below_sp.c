// A stack with nothing but a pattern below its stack pointer. Whatever runs there, at most 64 bytes of the pattern may
// change. Light-weight threads have stacks of a few kibibytes, and nobody but the thread may use what lies below its
// stack pointer.
#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "../syscalls/check.h"

enum { BELOW = 32768, ABOVE = 4096, WORDS = 10, MOST = 64 };

typedef long (*routine)(const long*);
long on_stack(void* sp, routine what, const long* arguments);
long new_blocks(const long*);
long hot_paths(const long*);
long hot_calls(const long*);
long system_call(const long*);
long clone_call(const long*);
long region(const long*);
long getppid_call(const long*);
long invalidate(const long*);
long faulting_load(const long*);
long wait_for_word(const long*);

static unsigned char* memory;

static unsigned char pattern_at(int index) { return (unsigned char)(index * 29 + 7); }

static long run(const char* name, routine what, const long* arguments) {
  for (int index = 0; index < BELOW; ++index) memory[index] = pattern_at(index);
  memset(memory + BELOW, 0x5a, ABOVE);
  const long result = on_stack(memory + BELOW, what, arguments);
  int lowest = 0;
  while (lowest < BELOW && memory[lowest] == pattern_at(lowest)) ++lowest;
  int above = 0;
  while (above < ABOVE && memory[BELOW + above] == 0x5a) ++above;
  if (BELOW - lowest > MOST) printf("%s: changes up to %d bytes below the stack pointer\n", name, BELOW - lowest);
  if (above != ABOVE) printf("%s: changes the stack itself\n", name);
  return result;
}

static long call(const char* name, long number, long a0, long a1, long a2, long a3, long a4, long a5) {
  const long words[WORDS] = {number, a0, a1, a2, a3, a4, a5};
  return run(name, system_call, words);
}

static void handle(int number) { (void)number; }

static void memory_calls(void) {
  const long page = sysconf(_SC_PAGESIZE);
  const long map = call("mmap", SYS_mmap, 0, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(map > 0);
  CHECK(call("mprotect", SYS_mprotect, map, page, PROT_READ | PROT_EXEC, 0, 0, 0) == 0);
  CHECK(call("mprotect back", SYS_mprotect, map, page, PROT_READ | PROT_WRITE, 0, 0, 0) == 0);
  const long moved = call("mremap", SYS_mremap, map, page, page, MREMAP_MAYMOVE, 0, 0);
  CHECK(moved > 0);
  CHECK(call("munmap", SYS_munmap, map, 2 * page, 0, 0, 0, 0) == 0);
  const int self = open("/proc/self/exe", O_RDONLY);
  const long code = call("mmap of code", SYS_mmap, 0, page, PROT_READ | PROT_EXEC, MAP_PRIVATE, self, 0);
  CHECK(code > 0);
  CHECK(call("munmap of code", SYS_munmap, code, page, 0, 0, 0, 0) == 0);
  CHECK(call("close", SYS_close, self, 0, 0, 0, 0, 0) == 0);
  const long brk = call("brk", SYS_brk, 0, 0, 0, 0, 0, 0);
  call("brk up", SYS_brk, brk + page, 0, 0, 0, 0, 0);
}

static void signal_calls(void) {
  long action[4] = {(long)handle};
  CHECK(call("rt_sigaction", SYS_rt_sigaction, SIGUSR1, (long)action, 0, 8, 0, 0) == 0);
  unsigned long mask = 1UL << (SIGUSR1 - 1);
  CHECK(call("rt_sigprocmask", SYS_rt_sigprocmask, SIG_BLOCK, (long)&mask, 0, 8, 0, 0) == 0);
  CHECK(call("tgkill", SYS_tgkill, getpid(), gettid(), SIGUSR1, 0, 0, 0) == 0);
  const struct timespec none = {0, 0};
  CHECK(call("rt_sigtimedwait", SYS_rt_sigtimedwait, (long)&mask, 0, (long)&none, 8, 0, 0) == SIGUSR1);
  CHECK(call("rt_sigprocmask back", SYS_rt_sigprocmask, SIG_UNBLOCK, (long)&mask, 0, 8, 0, 0) == 0);
}

static void file_calls(void) {
  char path[256];
  CHECK(call("readlinkat", SYS_readlinkat, AT_FDCWD, (long)"/proc/self/exe", (long)path, sizeof path, 0, 0) > 0);
  const long fd = call("openat", SYS_openat, AT_FDCWD, (long)"/proc/self/exe", O_RDONLY, 0, 0, 0);
  CHECK(fd >= 0);
  CHECK(call("read", SYS_read, fd, (long)path, sizeof path, 0, 0, 0) == sizeof path);
  CHECK(call("dup3", SYS_dup3, fd, fd + 1, 0, 0, 0, 0) == fd + 1);
  CHECK(call("close of both", SYS_close, fd + 1, 0, 0, 0, 0, 0) == 0);
  CHECK(call("close", SYS_close, fd, 0, 0, 0, 0, 0) == 0);
  CHECK(call("execve of nothing", SYS_execve, (long)"/no/such/file", 0, 0, 0, 0, 0) < 0);
  const struct timespec short_time = {0, 1000};
  CHECK(call("ppoll", SYS_ppoll, 0, 0, (long)&short_time, 0, 0, 0) == 0);
  CHECK(call("clone3", 435, 0, 0, 0, 0, 0, 0) < 0);
}

// What the engine answers by itself, or with an argument of its own.
static void other_calls(void) {
  CHECK(run("a call with its number", getppid_call, NULL) == getppid());
  long words[8] = {0};
  CHECK(call("sigaltstack", SYS_sigaltstack, 0, (long)words, 0, 0, 0, 0) == 0);
  CHECK(call("set_tid_address", SYS_set_tid_address, (long)words, 0, 0, 0, 0, 0) == gettid());
  const long memory_id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  const long attached = call("shmat", SYS_shmat, memory_id, 0, 0, 0, 0, 0);
  CHECK(attached > 0);
  CHECK(call("shmdt", SYS_shmdt, attached, 0, 0, 0, 0, 0) == 0);
  CHECK(shmctl((int)memory_id, IPC_RMID, NULL) == 0);
  call("membarrier", SYS_membarrier, 0, 0, 0, 0, 0, 0);
  call("close_range", 436, 900, 1000, 0, 0, 0, 0);
  CHECK(call("prctl of shadow stacks", SYS_prctl, 74, 0, 0, 0, 0, 0) < 0);
  call("rseq", SYS_rseq, 0, 0, 0, 0, 0, 0);
  unsigned long mask = 1UL << (SIGILL - 1);
  const struct timespec short_time = {0, 1000};
  CHECK(call("ppoll with a mask", SYS_ppoll, 0, 0, (long)&short_time, (long)&mask, 8, 0) == 0);
  CHECK(call("faccessat", SYS_faccessat, AT_FDCWD, (long)"/proc/self/exe", R_OK, 0, 0, 0) == 0);
  words[0] = 0;
  CHECK(run("invalidated code", invalidate, words) == 0);
}

static volatile int handled;

static void handle_elsewhere(int number, siginfo_t* info, void* context) {
  (void)info;
  if (number == SIGSEGV) ((ucontext_t*)context)->uc_mcontext.pc += 4;
  handled = 1;
}

// Handlers that run on a signal stack: of a signal at the end of a call, of a fault, and of one that comes in between.
static void signals_elsewhere(void) {
  static char elsewhere[65536] __attribute__((aligned(16)));
  const stack_t stack = {.ss_sp = elsewhere, .ss_size = sizeof elsewhere};
  CHECK(sigaltstack(&stack, NULL) == 0);
  struct sigaction action = {.sa_sigaction = handle_elsewhere, .sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART};
  CHECK(sigaction(SIGUSR2, &action, NULL) == 0 && sigaction(SIGSEGV, &action, NULL) == 0);
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  for (int round = 0; round < 3; ++round) {
    handled = 0;
    CHECK(call("a handled signal", SYS_tgkill, getpid(), gettid(), SIGUSR2, 0, 0, 0) == 0 && handled);
    handled = 0;
    CHECK(run("a fault", faulting_load, NULL) == 1 && handled);
    handled = 0;
    const struct itimerval soon = {{0, 0}, {0, 20000}};
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    CHECK(run("a timer's signal", wait_for_word, (const long*)&handled) == 0);
  }
}

static void clones(void) {
  const long fork[WORDS] = {SYS_clone, SIGCHLD};
  int status = -1;
  const long child = run("fork", clone_call, fork);
  CHECK(waitpid((pid_t)child, &status, 0) == child && status == 0);
  const long vfork[WORDS] = {SYS_clone, CLONE_VM | CLONE_VFORK | SIGCHLD};
  const long second = run("vfork", clone_call, vfork);
  CHECK(waitpid((pid_t)second, &status, 0) == second && status == 0);
  static unsigned char stack[65536] __attribute__((aligned(16)));
  static int tid;
  tid = 1;
  const long flags =
      CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM | CLONE_CHILD_CLEARTID;
  const long thread[WORDS] = {SYS_clone, flags, (long)(stack + sizeof stack), 0, 0, (long)&tid};
  CHECK(run("thread", clone_call, thread) > 0);
  for (int value = 0; (value = __atomic_load_n(&tid, __ATOMIC_ACQUIRE)) != 0;) {
    syscall(SYS_futex, &tid, FUTEX_WAIT, value, NULL, NULL, 0);
  }
}

int main(void) {
  memory = mmap(NULL, BELOW + ABOVE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(memory != MAP_FAILED);
  run("new blocks", new_blocks, NULL);
  run("hot paths", hot_paths, NULL);
  run("hot calls", hot_calls, NULL);
  run("a region", region, NULL);
  CHECK(call("getppid", SYS_getppid, 0, 0, 0, 0, 0, 0) == getppid());
  memory_calls();
  signal_calls();
  file_calls();
  other_calls();
  signals_elsewhere();
  clones();
  puts("done");
  return 0;
}
