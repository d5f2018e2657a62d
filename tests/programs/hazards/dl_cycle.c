// Libraries are loaded, run and unloaded, and others loaded after them. The kernel gives them the same address. Takes
// the folder of the libraries dl_one.so and dl_two.so.
#include <dlfcn.h>
#include <string.h>

#include "../syscalls/check.h"

static long run(const char* folder, const char* name, long value) {
  char path[4096];
  snprintf(path, sizeof path, "%s/%s", folder, name);
  void* library = dlopen(path, RTLD_NOW);
  if (!library) fprintf(stderr, "%s\n", dlerror());
  CHECK(library);
  long (*function)(long) = NULL;
  void* symbol = dlsym(library, "work");
  CHECK(symbol);
  memcpy(&function, &symbol, sizeof symbol);
  const long result = function(value);
  int* calls = dlsym(library, "calls");
  CHECK(calls && *calls == 1);  // A library that was unloaded has lost its data.
  CHECK(dlclose(library) == 0);
  return result;
}

int main(int argc, char** argv) {
  CHECK(argc == 2);
  long sum = 0;
  for (int round = 0; round < 10; ++round) {
    const long one = run(argv[1], "dl_one.so", round);
    const long two = run(argv[1], "dl_two.so", round);
    CHECK(one == round + 1 && two == round * 2);
    sum += one + two;
  }
  printf("%ld\n", sum);
  return 0;
}
