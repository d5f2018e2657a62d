// Light-weight threads: many stacks of 4 KiB with a page below each that nobody may touch, and a few threads of the
// system that take them up in turns, whoever comes first. They use all of their stacks, make system calls with little
// room left, and are interrupted by timers whose handlers have a signal stack. In the end the same with the C library's
// contexts.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "syscalls/check.h"

enum {
  LIGHT = 200,
  WORKERS = 3,
  TURNS = 20,
  STACK = 4096,
  LEFT = 416,
  GAP = 65536,
  FRAME_WORDS = 20,
  PLACE_OF_X30 = 11
};

void switch_stack(void** from, void* to);

struct light {
  void* sp;
  uintptr_t bottom;
  int turns;
  uint64_t sum;
};

static struct light lights[LIGHT];
static int waiting[LIGHT];  // A ring of those that nobody runs.
static int first;
static int count;
static int ended;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static volatile sig_atomic_t interruptions;

// A light-weight thread finds these by a call each time: it goes on in another thread of the system than before.
static _Thread_local void* worker_sp;
static _Thread_local struct light* running;
static __attribute__((noinline)) void** place_of_worker(void) { return &worker_sp; }
static __attribute__((noinline)) struct light* self(void) { return running; }

static void yield_light(void) {
  struct light* light = self();
  switch_stack(&light->sp, *place_of_worker());
}

static uint64_t mix(uint64_t value) {
  value ^= value >> 29;
  return value * 0x9e3779b97f4a7c15u + 1;
}

// By a pointer, so that each level has a frame of its own.
static uint64_t go_down(uintptr_t bottom, uint64_t value);
static uint64_t (*volatile next_level)(uintptr_t, uint64_t) = go_down;

// Down to where the frames of the calls below have room and little else.
static uint64_t go_down(uintptr_t bottom, uint64_t value) {
  volatile uint64_t kept[4] = {value, value + 1, value + 2, value + 3};
  if ((uintptr_t)__builtin_frame_address(0) - bottom < LEFT) {
    CHECK(syscall(SYS_getppid) > 0);
    yield_light();
    return mix(kept[0] + kept[3]);
  }
  const uint64_t below = next_level(bottom, mix(value));
  return mix(below + kept[1] + kept[2]);
}

static void run_light(void) {
  for (int turn = 0; turn < TURNS; ++turn) {
    struct light* light = self();
    const uint64_t sum = next_level(light->bottom, light->sum + (uint64_t)turn);
    self()->sum = sum;
  }
  self()->turns = TURNS;
  for (;;) yield_light();
}

static unsigned char* new_stack(void) {
  unsigned char* memory = mmap(NULL, 2 * GAP, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  CHECK(memory != MAP_FAILED);
  CHECK(mprotect(memory + GAP, STACK, PROT_READ | PROT_WRITE) == 0);
  return memory + GAP;
}

static void make_light(int index) {
  unsigned char* bottom = new_stack();
  uint64_t* frame = (uint64_t*)(bottom + STACK) - FRAME_WORDS;
  frame[PLACE_OF_X30] = (uint64_t)(uintptr_t)run_light;
  lights[index] = (struct light){.sp = frame, .bottom = (uintptr_t)bottom, .sum = (uint64_t)index};
  waiting[index] = index;
}

static int take_light(void) {
  pthread_mutex_lock(&lock);
  int index = ended == LIGHT ? -1 : -2;
  if (count > 0) {
    index = waiting[first];
    first = (first + 1) % LIGHT;
    --count;
  }
  pthread_mutex_unlock(&lock);
  return index;
}

static void give_light(int index) {
  pthread_mutex_lock(&lock);
  if (lights[index].turns == TURNS) {
    ++ended;
  } else {
    waiting[(first + count++) % LIGHT] = index;
  }
  pthread_mutex_unlock(&lock);
}

static void interrupt(int number) {
  (void)number;
  ++interruptions;
}

static void use_signal_stack(unsigned char* stack, size_t size) {
  const stack_t signals = {.ss_sp = stack, .ss_size = size};
  CHECK(sigaltstack(&signals, NULL) == 0);
}

static void* work(void* unused) {
  unsigned char stack[65536];
  use_signal_stack(stack, sizeof stack);
  for (int index = 0; (index = take_light()) != -1;) {
    if (index == -2) {
      sched_yield();
      continue;
    }
    running = &lights[index];
    switch_stack(&worker_sp, lights[index].sp);
    give_light(index);
  }
  const stack_t none = {.ss_flags = SS_DISABLE};
  CHECK(sigaltstack(&none, NULL) == 0);
  return unused;
}

// The same calls in contexts of the C library, one after the other.
static ucontext_t scheduler;
static ucontext_t contexts[LIGHT];
static uint64_t sums[LIGHT];

static void run_context(int index) {
  for (int turn = 0; turn < 3; ++turn) {
    volatile unsigned char used[1024];
    memset((void*)used, index + turn, sizeof used);
    swapcontext(&contexts[index], &scheduler);
    for (size_t place = 0; place < sizeof used; ++place) sums[index] = mix(sums[index] + used[place]);
  }
}

static void make_context(int index) {
  ucontext_t* context = &contexts[index];
  CHECK(getcontext(context) == 0);
  context->uc_stack.ss_sp = new_stack();
  context->uc_stack.ss_size = STACK;
  context->uc_link = &scheduler;
  makecontext(context, (void (*)(void))run_context, 1, index);
}

static void run_contexts(void) {
  for (int index = 0; index < LIGHT; ++index) make_context(index);
  for (int turn = 0; turn < 4; ++turn) {
    for (int index = 0; index < LIGHT; ++index) CHECK(swapcontext(&scheduler, &contexts[index]) == 0);
  }
}

int main(void) {
  // The dynamic linker binds a function at its first call, which takes more stack than there will be.
  CHECK(syscall(SYS_getppid) > 0);
  struct sigaction action = {.sa_handler = interrupt, .sa_flags = SA_ONSTACK | SA_RESTART};
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  static unsigned char stack[65536];
  use_signal_stack(stack, sizeof stack);
  struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGALRM};
  const struct itimerspec period = {{0, 5000000}, {0, 5000000}};
  timer_t timer;
  CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0);
  CHECK(timer_settime(timer, 0, &period, NULL) == 0);
  for (int index = 0; index < LIGHT; ++index) make_light(index);
  count = LIGHT;
  pthread_t workers[WORKERS];
  for (int index = 0; index < WORKERS; ++index) CHECK(pthread_create(&workers[index], NULL, work, NULL) == 0);
  for (int index = 0; index < WORKERS; ++index) CHECK(pthread_join(workers[index], NULL) == 0);
  run_contexts();
  CHECK(timer_delete(timer) == 0);
  uint64_t total = 0;
  for (int index = 0; index < LIGHT; ++index) total = mix(total + lights[index].sum + sums[index]);
  printf("%d light-weight threads: %016llx\n", ended, (unsigned long long)total);
  return 0;
}
