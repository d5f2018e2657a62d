// Ends by a fault of its own, without a handler:
//   crash access|jump|trap|sent|ignored|after_handler
// Before that it says what it reads back of the action, which is the default one or its own, whatever the engine's is.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static void say_action(int signum) {
  struct sigaction action;
  if (sigaction(signum, NULL, &action) != 0) return;
  const char* handler = action.sa_handler == SIG_DFL   ? "default"
                        : action.sa_handler == SIG_IGN ? "ignored"
                                                       : "a handler";
  printf("signal %d: %s, flags %x\n", signum, handler, (unsigned)action.sa_flags);
  fflush(stdout);
}

static void handle(int signum) {
  (void)signum;
  static const char text[] = "in the handler\n";
  if (write(STDOUT_FILENO, text, sizeof text - 1) < 0) _exit(1);
}

__attribute__((noinline)) void store_to_nowhere(volatile int* place) { *place = 1; }

int main(int argc, char** argv) {
  const char* way = argc > 1 ? argv[1] : "";
  say_action(SIGSEGV);
  say_action(SIGTRAP);
  void (*volatile nowhere)(void) = (void (*)(void))16;
  if (strcmp(way, "access") == 0) store_to_nowhere((volatile int*)16);
  if (strcmp(way, "jump") == 0) nowhere();
  if (strcmp(way, "trap") == 0) __asm__ volatile("brk #1");
  if (strcmp(way, "sent") == 0) raise(SIGSEGV);
  if (strcmp(way, "ignored") == 0) {
    signal(SIGSEGV, SIG_IGN);
    say_action(SIGSEGV);
    raise(SIGSEGV);
    puts("the sent signal was ignored");
    fflush(stdout);
    store_to_nowhere((volatile int*)16);
  }
  if (strcmp(way, "after_handler") == 0) {
    signal(SIGSEGV, handle);
    say_action(SIGSEGV);
    raise(SIGSEGV);
    signal(SIGSEGV, SIG_DFL);
    say_action(SIGSEGV);
    store_to_nowhere((volatile int*)16);
  }
  puts("nothing has ended the program");
  return 1;
}
