// refused_code mdwe|filter: from the middle of the run on, memory that is both writable and executable is refused, by
// the kernel's own switch or by a filter of system calls, as a security module would do it. The program goes on. A new
// thread runs, or its creation fails with EAGAIN, each time again; the existing threads go on; a child is forked.
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

#ifndef PR_SET_MDWE
#define PR_SET_MDWE 65
#define PR_MDWE_REFUSE_EXEC_GAIN 1
#endif

enum { THREADS = 5 };

static atomic_int ran;
static atomic_int go;

static void* run(void* data) {
  atomic_fetch_add(&ran, 1);
  return data;
}

static void* run_on(void* data) {
  while (!atomic_load(&go)) usleep(1000);
  return run(data);
}

static void filter_calls(void) {
  const unsigned both = PROT_WRITE | PROT_EXEC;
  const unsigned protection = offsetof(struct seccomp_data, args[2]);
  struct sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_mmap, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_mprotect, 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, protection),
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, both),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, both, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const struct sock_fprog program = {sizeof steps / sizeof *steps, steps};
  CHECK(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0);
  CHECK(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0);
}

static int double_of(int number) { return number * 2; }

int main(int argc, char** argv) {
  CHECK(argc == 2);
  pthread_t first;
  CHECK(pthread_create(&first, NULL, run_on, NULL) == 0);
  if (strcmp(argv[1], "filter") == 0) {
    filter_calls();
  } else if (prctl(PR_SET_MDWE, PR_MDWE_REFUSE_EXEC_GAIN, 0, 0, 0) != 0) {
    CHECK(errno == EINVAL);
    fputs("this kernel has no such switch\n", stderr);
  }
  int refused = 0;
  for (int index = 0; index < THREADS; ++index) {
    pthread_t thread;
    const int error = pthread_create(&thread, NULL, run, NULL);
    CHECK(error == 0 || error == EAGAIN);
    if (error == 0) CHECK(pthread_join(thread, NULL) == 0);
    refused += error != 0;
  }
  CHECK(atomic_load(&ran) + refused == THREADS);
  int (*volatile called)(int) = double_of;  // Code that runs for the first time.
  CHECK(called(21) == 42);
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) _exit(called(3));
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 6);
  atomic_store(&go, 1);
  CHECK(pthread_join(first, NULL) == 0);
  CHECK(atomic_load(&ran) + refused == THREADS + 1);
  puts("it goes on");
  return 0;
}
