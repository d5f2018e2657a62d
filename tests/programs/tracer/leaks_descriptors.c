// Opens files until no more may be opened, and ends with all of them open. The end of the process closes them.
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
