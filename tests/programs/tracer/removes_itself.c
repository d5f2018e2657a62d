// Does some arithmetic and removes its own file.
#include <stdio.h>
#include <unistd.h>

int main(int argc, char** argv) {
  volatile double value = argc;
  for (int round = 0; round < 100; ++round) value = value * 0.5 + 1.0;
  return unlink(argv[0]) == 0 ? 0 : 1;
}
