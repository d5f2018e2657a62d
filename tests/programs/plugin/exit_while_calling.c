// Ends while three threads go round in loops that they never leave.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

static volatile int started[3];

static void* turn(void* argument) {
  volatile int* word = argument;
  for (;;) *word = 1;
  return NULL;
}

int main(void) {
  for (int index = 0; index < 3; ++index) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, turn, (void*)&started[index]) != 0) return 1;
  }
  for (int index = 0; index < 3; ++index) {
    while (started[index] == 0) {
    }
  }
  puts("ending");
  fflush(stdout);
  exit(0);
}
