// stack_rules: the rules of sigaltstack, as the kernel of the machine has them. Prints what the kernel answers in one
// case after another, and where frames lie. The output under the engine must be that of a native run.
#include <errno.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <threads.h>
#include <ucontext.h>
#include <unistd.h>

#include "syscalls/check.h"

enum { STACK = 64 * 1024, LEAST = 5120 };
static const int AUTODISARM = (int)(1U << 31);
static char* stack;
static char* other;

// Makes the call directly, because a C library may check the arguments first.
static int call(const void* wanted, void* old) { return syscall(SYS_sigaltstack, wanted, old) == 0 ? 0 : errno; }

static const char* name_of(const void* place) {
  if (place == NULL) return "none";
  return place == stack ? "stack" : place == other ? "other" : "elsewhere";
}

static void tell(const char* when) {
  stack_t now;
  memset(&now, 0x5a, sizeof now);
  const int error = call(NULL, &now);
  printf("%s: %d, %s, %zu, 0x%x\n", when, error, name_of(now.ss_sp), now.ss_size, (unsigned)now.ss_flags);
}

static int set(void* place, size_t size, int flags) {
  stack_t wanted;
  memset(&wanted, 0, sizeof wanted);
  wanted.ss_sp = place;
  wanted.ss_size = size;
  wanted.ss_flags = flags;
  return call(&wanted, NULL);
}

static void errors(void) {
  const int flags[] = {0,          SS_ONSTACK,          SS_DISABLE,          3,       4, 0x100,
                       AUTODISARM, (int)(1U << 31 | 1), (int)(1U << 31 | 2), 1 << 30, -1};
  const size_t sizes[] = {0, 1, 2047, 2048, LEAST - 1, LEAST, STACK};
  for (size_t flag = 0; flag < sizeof flags / sizeof *flags; ++flag) {
    for (size_t size = 0; size < sizeof sizes / sizeof *sizes; ++size) {
      printf("flags 0x%x, size %zu: %d; ", (unsigned)flags[flag], sizes[size], set(stack, sizes[size], flags[flag]));
      tell("then");
      CHECK(set(NULL, 0, SS_DISABLE) == 0);
    }
  }
  char* page = mmap(NULL, 0x20000, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* end = mmap(NULL, 0x20000, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(page != MAP_FAILED && end != MAP_FAILED && munmap(end + 0x10000, 0x10000) == 0);
  printf("unreadable: %d\n", call(page, NULL));
  printf("unwritable: %d\n", call(NULL, page));
  printf("half readable: %d\n", call(end + 0x10000 - 16, NULL));
  const stack_t wanted = {.ss_sp = stack, .ss_size = STACK};
  printf("set, and not told: %d\n", call(&wanted, page));
  tell("after that");
  stack_t both = {.ss_sp = other, .ss_size = STACK};
  printf("one record for both: %d, %s\n", call(&both, &both), name_of(both.ss_sp));
  tell("after that");
  CHECK(munmap(page, 0x20000) == 0 && munmap(end, 0x10000) == 0);
}

// What a handler finds. `deeper` raises the next signal from it.
static int deeper;
static ucontext_t* seen;

static int is_in(const void* place, const char* area) {
  return (uintptr_t)place >= (uintptr_t)area && (uintptr_t)place < (uintptr_t)area + STACK;
}

static const char* where(const void* place) {
  return is_in(place, stack) ? "stack" : is_in(place, other) ? "other" : "the usual one";
}

static void look(int number, siginfo_t* info, void* context) {
  const ucontext_t* ucontext = context;
  const int here = 0;
  seen = context;
  const uintptr_t* record = __builtin_frame_address(0);
  printf("signal %d on %s, code %d, from sp on %s\n", number, where(&here), info->si_code,
         where((void*)ucontext->uc_mcontext.sp));
  printf("uc_stack: %s, %zu, 0x%x; link %p, flags %lu\n", name_of(ucontext->uc_stack.ss_sp), ucontext->uc_stack.ss_size,
         (unsigned)ucontext->uc_stack.ss_flags, (void*)ucontext->uc_link, ucontext->uc_flags);
  const uintptr_t frame = (uintptr_t)info;
  const uintptr_t sp = ucontext->uc_mcontext.sp;
  const char* area = is_in(info, stack) ? stack : is_in(info, other) ? other : NULL;
  const int is_at_top = area != NULL && !is_in((void*)(sp - 1), area);
  const uintptr_t top = is_at_top ? (uintptr_t)area + STACK : sp;
  printf("frame: %d, siginfo at %zu below %s, aligned %d\n", (int)((uintptr_t)context - frame), (size_t)(top - frame),
         is_at_top ? "the stack's top" : "sp", (int)(frame % 16));
  // The handler's own record leads to the frame's, which holds the registers of the interrupted code.
  const uintptr_t* interrupted = (const uintptr_t*)record[0];
  printf("frame record: %zu below, %d %d\n", (size_t)(top - (uintptr_t)interrupted),
         interrupted[0] == ucontext->uc_mcontext.regs[29], interrupted[1] == ucontext->uc_mcontext.regs[30]);
  tell("inside");
  printf("set inside: %d\n", set(other, STACK, 0));
  if (deeper > 0) {
    --deeper;
    raise(number == SIGUSR1 ? SIGUSR2 : SIGUSR1);
    tell("inside, after the next one");
  }
}

static void install(int flags) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = look;
  action.sa_flags = SA_SIGINFO | SA_NODEFER | flags;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0 && sigaction(SIGUSR2, &action, NULL) == 0);
}

static void nested(void) {
  const int modes[] = {0, AUTODISARM};
  for (int mode = 0; mode < 2; ++mode) {
    for (int flags = 0; flags < 2; ++flags) {
      printf("nested, flags 0x%x, on the stack %d: %d\n", (unsigned)modes[mode], flags, set(stack, STACK, modes[mode]));
      install(flags ? SA_ONSTACK : 0);
      deeper = 2;
      raise(SIGUSR1);
      tell("outside");
    }
  }
  CHECK(set(NULL, 0, SS_DISABLE) == 0);
  install(SA_ONSTACK);
  deeper = 0;
  raise(SIGUSR1);  // Without a stack.
}

// A handler may change what its return restores.
static stack_t left_in_frame;
static void edit(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  ((ucontext_t*)context)->uc_stack = left_in_frame;
}

static void edited(void) {
  const stack_t frames[] = {{.ss_sp = other, .ss_size = STACK},
                            {.ss_sp = other, .ss_size = 16},
                            {.ss_sp = other, .ss_size = STACK, .ss_flags = 7},
                            {.ss_sp = other, .ss_size = STACK, .ss_flags = SS_ONSTACK},
                            {.ss_flags = SS_DISABLE}};
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = edit;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  for (size_t index = 0; index < sizeof frames / sizeof *frames; ++index) {
    CHECK(set(stack, STACK, 0) == 0);
    left_in_frame = frames[index];
    raise(SIGUSR1);
    tell("edited");
  }
}

// Runs in a child that clone makes with the flags of the case. The status adds up 1, 2 and 4 for what a child without a
// signal stack reports: no address, no size, SS_DISABLE.
static int in_process(void* nothing) {
  (void)nothing;
  stack_t now;
  if (call(NULL, &now) != 0) _exit(99);
  _exit((now.ss_sp == NULL) + 2 * (now.ss_size == 0) + 4 * (now.ss_flags == SS_DISABLE));
}

static void tell_of_process(const char* what, int flags) {
  const pid_t child = clone(in_process, other + STACK / 2, flags | SIGCHLD, NULL);
  int status = -1;
  CHECK(child < 0 || waitpid(child, &status, 0) == child);
  printf("%s: %d, 0x%x\n", what, child < 0 ? errno : 0, (unsigned)status);
}

static int in_thread(void* nothing) {
  (void)nothing;
  tell("in a new thread");
  CHECK(set(other, STACK, 0) == 0);
  install(SA_ONSTACK);
  deeper = 0;
  raise(SIGUSR1);
  return 0;
}

static void heirs(void) {
  CHECK(set(stack, STACK, 0) == 0);
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    tell("in a child");
    install(SA_ONSTACK);
    deeper = 1;
    raise(SIGUSR1);
    fflush(stdout);
    _exit(0);
  }
  CHECK(waitpid(child, NULL, 0) == child);
  tell_of_process("in a copy", 0);
  tell_of_process("in a process with the same memory", CLONE_VM);
  tell_of_process("in one that its parent waits for", CLONE_VM | CLONE_VFORK);
  thrd_t thread;
  CHECK(thrd_create(&thread, in_thread, NULL) == thrd_success && thrd_join(thread, NULL) == thrd_success);
  tell("in its parent");
}

static sigjmp_buf out;
static ucontext_t back;
static int jumps;
static void leave(int number) {
  ++jumps;
  if (number == SIGUSR1) siglongjmp(out, 1);
  setcontext(&back);
}

static void left(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = leave;
  action.sa_flags = SA_ONSTACK;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0 && sigaction(SIGUSR2, &action, NULL) == 0);
  CHECK(set(stack, STACK, 0) == 0);
  for (volatile int round = 0; round < 100; ++round) {
    if (sigsetjmp(out, 1) == 0) raise(SIGUSR1);
  }
  volatile int rounds = 0;
  CHECK(getcontext(&back) == 0);
  if (++rounds <= 100) raise(SIGUSR2);
  printf("left %d times\n", jumps);
  tell("after jumps");
}

// A coroutine whose handler switches to another one while it runs on the signal stack, and ends later.
static ucontext_t main_context;
static ucontext_t handler_context;
static ucontext_t coroutine;
static void swap_away(int number) {
  (void)number;
  CHECK(swapcontext(&handler_context, &main_context) == 0);
  tell("back in the handler");
}

static void raise_there(void) { raise(SIGUSR1); }

static void swapped(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = swap_away;
  action.sa_flags = SA_ONSTACK;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  CHECK(set(stack, STACK, 0) == 0);
  CHECK(getcontext(&coroutine) == 0);
  coroutine.uc_stack.ss_sp = other;
  coroutine.uc_stack.ss_size = STACK;
  coroutine.uc_link = &main_context;
  makecontext(&coroutine, raise_there, 0);
  CHECK(swapcontext(&main_context, &coroutine) == 0);
  tell("outside, with a handler on the stack");
  CHECK(swapcontext(&main_context, &handler_context) == 0);
  tell("after both");
}

// Without SA_SIGINFO the kernel writes no siginfo.
static volatile int plain_seen;
static void plain(int number) { plain_seen = number; }

static void without_info(void) {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = plain;
  action.sa_flags = SA_ONSTACK;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  CHECK(set(stack, STACK, 0) == 0);
  memset(stack, 0x5a, STACK);
  raise(SIGUSR1);
  long untouched = 0;
  while (untouched < STACK && stack[untouched] == 0x5a) ++untouched;
  printf("plain %d, %d\n", plain_seen, untouched < STACK);
}

// Another program in the same process begins without a stack.
static void executed(char** argv) {
  CHECK(set(stack, STACK, 0) == 0);
  tell("before another program");
  execl("/proc/self/exe", argv[0], "executed", NULL);
  CHECK(0);
}

int main(int argc, char** argv) {
  stack = mmap(NULL, STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  other = mmap(NULL, STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(stack != MAP_FAILED && other != MAP_FAILED);
  setvbuf(stdout, NULL, _IOLBF, 0);
  tell("at the start");
  if (argc > 1) return 0;
  errors();
  nested();
  edited();
  heirs();
  left();
  swapped();
  without_info();
  executed(argv);
}
