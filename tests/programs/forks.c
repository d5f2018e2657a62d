/* Forks as many children as its argument says; each computes a sum and sends it through a pipe. The sum of all is
   fixed, so that a run can be compared with any other. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
  const int children = argc > 1 ? atoi(argv[1]) : 2;
  int ends[2];
  if (pipe(ends) != 0) return 2;
  for (int child = 0; child < children; ++child) {
    const pid_t pid = fork();
    if (pid < 0) return 3;
    if (pid == 0) {
      volatile long sum = 0;
      for (long value = 0; value < 2000000 / children * 2; ++value) sum += value;
      const long result = sum;
      _exit(write(ends[1], &result, sizeof result) == (ssize_t)sizeof result ? 0 : 1);
    }
  }
  close(ends[1]);
  long total = 0;
  for (long part; read(ends[0], &part, sizeof part) == (ssize_t)sizeof part;) total += part;
  int failures = 0;
  for (int status; wait(&status) > 0;) failures += status != 0;
  printf("children: %d, sum: %ld\n", children, total);
  return failures;
}
