// Segments of shared memory, one with code: attached twice, written by one address and read by the other, detached.
#include <errno.h>
#include <string.h>
#include <sys/shm.h>
#include <unistd.h>

#include "check.h"

static long attachments(int id) {
  struct shmid_ds status;
  CHECK(shmctl(id, IPC_STAT, &status) == 0);
  return (long)status.shm_nattch;
}

static int call(void* code) {
  int (*function)(void) = NULL;
  memcpy(&function, &code, sizeof code);
  return function();
}

int main(void) {
  const size_t size = 3 * (size_t)sysconf(_SC_PAGESIZE);
  const int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0700);
  CHECK(id >= 0);
  char* one = shmat(id, NULL, 0);
  CHECK(one != (char*)-1);
  char* other = shmat(id, NULL, SHM_EXEC);
  CHECK(other != (char*)-1);
  CHECK(shmctl(id, IPC_RMID, NULL) == 0);  // It lives as long as it is attached.
  for (unsigned value = 1; value <= 3; ++value) {
    const unsigned code[] = {0x52800000 | value << 5, 0xd65f03c0};  // mov w0, #value; ret
    char* at = other + (value - 1) * 64;
    memcpy(one + (value - 1) * 64, code, sizeof code);
    __builtin___clear_cache(at, at + sizeof code);
    printf("code of shared memory gives %d\n", call(at));
  }
  CHECK(attachments(id) == 2);
  CHECK(shmdt(one) == 0);
  CHECK(attachments(id) == 1);
  CHECK(shmdt(one) == -1 && errno == EINVAL);
  CHECK(shmdt(other) == 0);
  CHECK(shmdt(other) == -1 && errno == EINVAL);
  CHECK(shmat(id, NULL, 0) == (char*)-1);
  puts("detached");
  return 0;
}
