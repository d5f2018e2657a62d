// Opens files until it may open no more, and ends with all of them open: a process's end closes them.
#include <fcntl.h>
#include <sys/resource.h>

int main(void) {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
  limit.rlim_cur = 64;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
  while (open("/dev/null", O_RDONLY) >= 0) continue;
  return 3;
}
