// A process, and a child forked from it.
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

int main(void) {
  pid_t child = fork();
  if (child == 0) return 7;
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return 1;
  printf("status %d\n", WEXITSTATUS(status));
  return 0;
}
