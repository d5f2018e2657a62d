// A generator of code whose operations are known. It writes functions of floating-point instructions and calls them:
//
//   version 1   3 multiply-adds (2 operations each), called 700 times
//   version 2   at the same address: 5 additions and a loop of two, called 40 times
//   version 1   again, 300 times
//   a function in memory that is mapped twice, for writing and for running: 2 additions on two lanes, 500 times
//   a function in the place of a library that has been unmapped: 1 division, 200 times
//   a function in memory that is writable and executable at once, written over in place: 2 additions on two lanes 60
//   times, 3 multiply-adds 30 times, the additions 40 times
//
// generated_code [places | names]    prints where the functions are; "names" also writes them to the process's perf map
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../syscalls/check.h"

enum {
  RET = 0xd65f03c0,
  FMADD = 0x1f410020,       // fmadd d0, d1, d1, d0
  FADD = 0x1e612800,        // fadd d0, d0, d1
  FADD_LANES = 0x4e61d400,  // fadd v0.2d, v0.2d, v1.2d
  FDIV = 0x1e611800,        // fdiv d0, d0, d1
  MOV_X2_2 = 0xd2800042,    // mov x2, #2
  SUBS_X2 = 0xf1000442,     // subs x2, x2, #1
  B_NE_BACK_2 = 0x54ffffc1  // b.ne to two instructions before it
};

typedef double (*function)(double sum, double one);

static const uint32_t version_1[] = {FMADD, FMADD, FMADD, RET};
static const uint32_t version_2[] = {FADD, FADD, FADD, MOV_X2_2, FADD, SUBS_X2, B_NE_BACK_2, RET};
static const uint32_t lanes[] = {FADD_LANES, FADD_LANES, RET};
static const uint32_t quotient[] = {FDIV, RET};

static size_t page;
static FILE* names;

static void name(const void* place, size_t size, const char* text) {
  if (names == NULL) return;
  fprintf(names, "%lx %zx %s\n", (unsigned long)place, size, text);
  fflush(names);
}

static void write_code(void* place, const uint32_t* words, size_t size) {
  CHECK(mprotect(place, page, PROT_READ | PROT_WRITE) == 0);
  memcpy(place, words, size);
  CHECK(mprotect(place, page, PROT_READ | PROT_EXEC) == 0);
  __builtin___clear_cache((char*)place, (char*)place + size);
}

static void write_over(void* place, const uint32_t* words, size_t size) {
  memcpy(place, words, size);
  __builtin___clear_cache((char*)place, (char*)place + size);
}

static double call(void* place, int times) {
  double sum = 0;
  for (int round = 0; round < times; ++round) sum = ((function)place)(sum, 1.0);
  return sum;
}

int main(int argc, char** argv) {
  page = (size_t)sysconf(_SC_PAGESIZE);
  char path[64];
  snprintf(path, sizeof path, "/tmp/perf-%d.map", (int)getpid());
  if (argc > 1 && strcmp(argv[1], "names") == 0) CHECK((names = fopen(path, "w")) != NULL);

  char* code = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(code != MAP_FAILED);
  write_code(code, version_1, sizeof version_1);
  CHECK(call(code, 700) == 2100);
  write_code(code, version_2, sizeof version_2);
  CHECK(call(code, 40) == 200);
  write_code(code, version_1, sizeof version_1);
  CHECK(call(code, 300) == 900);
  name(code, sizeof version_2, "sum of products");

  const int memory = memfd_create("code", MFD_CLOEXEC);
  CHECK(memory >= 0 && ftruncate(memory, (off_t)page) == 0);
  char* data = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
  char* twin = mmap(NULL, page, PROT_READ | PROT_EXEC, MAP_SHARED, memory, 0);
  CHECK(data != MAP_FAILED && twin != MAP_FAILED);
  memcpy(data, lanes, sizeof lanes);
  __builtin___clear_cache(data, data + sizeof lanes);
  __builtin___clear_cache(twin, twin + sizeof lanes);
  CHECK(call(twin, 500) == 1000);

  const int self = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  char* library = mmap(NULL, page, PROT_READ | PROT_EXEC, MAP_PRIVATE, self, 0);
  CHECK(self >= 0 && library != MAP_FAILED && munmap(library, page) == 0);
  char* again = mmap(library, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  CHECK(again == library);
  write_code(again, quotient, sizeof quotient);
  CHECK(call(again, 200) == 0);
  name(again, sizeof quotient, "a quotient");

  char* open_code = mmap(NULL, page, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(open_code != MAP_FAILED);
  write_over(open_code, lanes, sizeof lanes);
  CHECK(call(open_code, 60) == 120);
  write_over(open_code, version_1, sizeof version_1);
  CHECK(call(open_code, 30) == 90);
  write_over(open_code, lanes, sizeof lanes);
  CHECK(call(open_code, 40) == 80);

  if (names != NULL) fclose(names);
  if (argc > 1) {
    printf("%lx %lx %lx %lx\n", (unsigned long)code, (unsigned long)twin, (unsigned long)again,
           (unsigned long)open_code);
  }
  return 0;
}
