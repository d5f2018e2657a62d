// Delivers signals at one instruction after another of a program, stubs and engine included:
//   every_instruction ONE|NESTED STEPS STRIDE [ENGINE] stepped_target
//   every_instruction CALL STEPS STRIDE [ENGINE] stepped_target
//   every_instruction EACH STEPS STRIDE [ENGINE] PROGRAM [ARGUMENT]
// ONE: after its getppid the program goes into a loop that only a signal ends. Single steps find the places of its
// first STEPS instructions. Then a breakpoint stops the program at every STRIDE-th of these places, and it is sent its
// signal there. NESTED: the program is sent one signal in the loop, and a second one at the places that it passes from
// the arrival of the first on. CALL: in place of the loop the program reads what only its handler writes, and the
// places are those between the two calls, with the second one's own. EACH: for a program that does the same each time
// but does not pass the same places. It is stepped to its STRIDE-th instruction after the getppid, twice as far the
// next time, and so on up to STEPS, and is sent its signal there. A lost signal shows as a hang. With
// EVERY_INSTRUCTION_TELLS in the environment the program prints the number of places.
#include <elf.h>
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include "syscalls/check.h"

enum { WARM_UP = 8, GUARD_SECONDS = 100, SYSCALL_STOP = SIGTRAP | 0x80, MOST = 20000 };
static const unsigned BREAKPOINT = 0xd4200000;   // brk #0
static const unsigned SYSTEM_CALL = 0xd4000001;  // svc #0

struct place {
  unsigned long address;
  unsigned word;
};
static struct place places[MOST];
static int place_count;
static const struct place* current;
static int missed;
static pid_t child;

static int to_pass(int stop) { return stop == SIGTRAP || stop == SYSCALL_STOP ? 0 : stop; }

static struct user_regs_struct registers(void) {
  struct user_regs_struct regs;
  struct iovec area = {&regs, sizeof regs};
  CHECK(ptrace(PTRACE_GETREGSET, child, NT_PRSTATUS, &area) == 0);
  return regs;
}

static void give_up(int number) {
  (void)number;
  dprintf(STDERR_FILENO, "hangs after a signal at place %d of %d, 0x%lx;", current ? (int)(current - places) : -1,
          place_count, current ? current->address : 0);
  kill(child, SIGSTOP);
  int status = 0;
  for (int index = 0; index < 5 && waitpid(child, &status, 0) == child && WIFSTOPPED(status); ++index) {
    dprintf(STDERR_FILENO, " stopped by %d at 0x%llx", WSTOPSIG(status), (unsigned long long)registers().pc);
    if (WSTOPSIG(status) == SIGSTOP) break;
    ptrace(PTRACE_CONT, child, NULL, (void*)(long)to_pass(WSTOPSIG(status)));
  }
  dprintf(STDERR_FILENO, "\n");
  kill(child, SIGKILL);
  _exit(1);
}

static unsigned long peek(unsigned long address) {
  errno = 0;
  const long words = ptrace(PTRACE_PEEKTEXT, child, (void*)(address & ~7UL), NULL);
  CHECK(errno == 0);
  return (unsigned long)words;
}

static unsigned word_at(unsigned long address) { return (unsigned)(peek(address) >> (address & 4) * 8); }

static void set_word(unsigned long address, unsigned word) {
  const int shift = (int)(address & 4) * 8;
  const unsigned long words = (peek(address) & ~(0xffffffffUL << shift)) | (unsigned long)word << shift;
  CHECK(ptrace(PTRACE_POKETEXT, child, (void*)(address & ~7UL), (void*)words) == 0);
}

static int wait_for_stop(int options) {
  int status = 0;
  pid_t result = -1;
  while ((result = waitpid(child, &status, options)) == -1) CHECK(errno == EINTR);
  if (result == 0) return 0;
  if (WIFSTOPPED(status)) return WSTOPSIG(status);
  fprintf(stderr, "ended with status 0x%x after a signal at 0x%lx\n", (unsigned)status, current ? current->address : 0);
  exit(1);
}

static void let_go(enum __ptrace_request way, int number) { CHECK(ptrace(way, child, NULL, (void*)(long)number) == 0); }

// The original word replaces a breakpoint that has been hit. It may be an older breakpoint that was copied along with
// code.
static void remove_breakpoint_at(unsigned long address) {
  if (word_at(address) != BREAKPOINT) return;
  for (int index = 0; index < place_count; ++index) {
    if (places[index].address == address) set_word(address, places[index].word);
  }
}

static int go_on(enum __ptrace_request way, int stop) {
  let_go(way, to_pass(stop));
  stop = wait_for_stop(0);
  if (stop == SIGTRAP) remove_breakpoint_at(registers().pc);
  return stop;
}

// Up to the return of the program's next getppid.
static void find_round(int stop) {
  unsigned long number = 0;
  int entered = 0;
  for (;;) {
    stop = go_on(PTRACE_SYSCALL, stop);
    if (stop != SYSCALL_STOP) continue;
    entered = !entered;
    if (entered) number = registers().regs[8];
    if (!entered && number == SYS_getppid) return;
  }
}

// Into the loop, and to the stop before the first signal's arrival there.
static void send_first(void) {
  let_go(PTRACE_CONT, 0);
  usleep(2000);
  CHECK(kill(child, SIGUSR1) == 0);
  for (int stop = 0; (stop = wait_for_stop(0)) != SIGUSR1;) {
    if (stop == SIGTRAP) remove_breakpoint_at(registers().pc);
    let_go(PTRACE_CONT, to_pass(stop));
  }
}

static int is_known(unsigned long address) {
  for (int index = 0; index < place_count; ++index) {
    if (places[index].address == address) return 1;
  }
  return 0;
}

static int learn(int steps, int up_to_call, int stop) {
  for (int index = 0; index < steps && place_count < MOST; ++index) {
    stop = go_on(PTRACE_SINGLESTEP, stop);
    const unsigned long pc = registers().pc;
    const unsigned word = word_at(pc);
    if (!is_known(pc)) places[place_count++] = (struct place){pc, word};
    if (up_to_call && word == SYSTEM_CALL) break;
  }
  return stop;
}

// Runs to the current place, and sends the signal there if the program passes it.
static int send_at_place(int stop, int number) {
  places[current - places].word = word_at(current->address);
  set_word(current->address, BREAKPOINT);
  int came = 0;
  for (int waited = 0;;) {
    let_go(PTRACE_CONT, to_pass(stop));
    while ((stop = wait_for_stop(WNOHANG)) == 0 && waited < 1000) {
      usleep(200);
      ++waited;
    }
    if (stop == 0) break;
    if (stop != SIGTRAP) continue;
    const unsigned long pc = registers().pc;
    remove_breakpoint_at(pc);
    if (pc != current->address) continue;
    came = 1;
    break;
  }
  CHECK(kill(child, number) == 0);
  if (came) return 0;
  ++missed;
  stop = wait_for_stop(0);
  if (word_at(current->address) == BREAKPOINT) set_word(current->address, current->word);
  return stop;
}

// The rounds of EACH, from the stop that the program stands at.
static int step_each(int steps, int stride, int stop) {
  int rounds = 0;
  for (int most = stride; most <= steps; most += stride, ++rounds) {
    alarm(GUARD_SECONDS);
    find_round(stop);
    stop = SYSCALL_STOP;
    for (int step = 0; step < most; ++step) stop = go_on(PTRACE_SINGLESTEP, stop);
    CHECK(kill(child, SIGUSR1) == 0);
  }
  find_round(stop);  // The last one has been handled, too.
  return rounds;
}

// The child stands at the first instruction of its program.
static void start_child(char** words) {
  cpu_set_t one;  // The two take turns: on one processor they need not wake another for each.
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  CHECK(sched_setaffinity(0, sizeof one, &one) == 0);
  child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    CHECK(ptrace(PTRACE_TRACEME, 0, NULL, NULL) == 0);
    execv(words[0], words);
    _exit(127);
  }
  CHECK(wait_for_stop(0) == SIGTRAP);
  CHECK(ptrace(PTRACE_SETOPTIONS, child, NULL, (void*)(PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL)) == 0);
  signal(SIGALRM, give_up);
  alarm(GUARD_SECONDS);
}

int main(int argc, char** argv) {
  CHECK(argc > 4);
  const int each = strcmp(argv[1], "EACH") == 0;
  const int nested = strcmp(argv[1], "NESTED") == 0;
  const int call = strcmp(argv[1], "CALL") == 0;
  const int steps = atoi(argv[2]);
  const int stride = atoi(argv[3]);
  char* words[8] = {0};
  int count = 0;
  for (int index = 4; index < argc && count < 6; ++index) words[count++] = argv[index];
  if (!each) words[count] = call ? "2" : nested ? "1" : "0";
  start_child(words);
  int stop = SIGTRAP;
  if (each) {
    CHECK(step_each(steps, stride, stop) > 0);
    let_go(PTRACE_KILL, 0);
    puts("every signal handled once, wherever it arrived");
    return 0;
  }
  for (int round = 0; round <= WARM_UP; ++round) {
    find_round(stop);
    stop = SYSCALL_STOP;
    if (nested) {
      send_first();
      stop = SIGUSR1;
      if (round == WARM_UP) stop = learn(steps, call, stop);
      CHECK(kill(child, SIGUSR2) == 0);
    } else {
      if (round == WARM_UP) stop = learn(steps, call, stop);
      CHECK(kill(child, SIGUSR1) == 0);
    }
  }
  int rounds = 0;
  for (int index = 0; index < place_count; index += stride, ++rounds) {
    alarm(GUARD_SECONDS);
    find_round(stop);
    current = &places[index];
    stop = SYSCALL_STOP;
    if (nested) {
      send_first();
      stop = SIGUSR1;
    }
    stop = send_at_place(stop, nested ? SIGUSR2 : SIGUSR1);
  }
  find_round(stop);  // The last one has been handled, too.
  let_go(PTRACE_KILL, 0);
  if (getenv("EVERY_INSTRUCTION_TELLS"))
    fprintf(stderr, "%d places, %d rounds, %d missed\n", place_count, rounds, missed);
  CHECK(rounds > 0 && missed * 4 <= rounds);
  puts("every signal handled once, wherever it arrived");
  return 0;
}
