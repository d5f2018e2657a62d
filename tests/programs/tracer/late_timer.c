// Sleeps for as many seconds as its argument says, sets a timer of one second that nothing handles, and ends before the
// timer is due. A process takes its timers with it when it ends.
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc > 1) sleep((unsigned)atoi(argv[1]));
  alarm(1);
  return 3;
}
