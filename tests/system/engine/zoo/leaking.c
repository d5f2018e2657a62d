// Loses a piece of memory while another thread sleeps.
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

static void* sleeps(void* argument) {
  sleep(600);
  return argument;
}

int main(void) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, sleeps, NULL) != 0) return 1;
  char* volatile lost = malloc(77);
  lost = NULL;
  return lost != NULL;
}
