/* Takes Ctrl-C over for the time of a job, then gives it back. */
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include "qmxutil_signal.h"

static volatile sig_atomic_t stop_wanted;

static void want_stop(int sig) {
  (void)sig;
  stop_wanted = 1;
}

int main(void) {
  int second;
  if (QMXUtil_RegSigHandler(SIGINT, want_stop) != 0) return 1;
  printf("Working for three seconds; Ctrl-C ends the work, not the program.\n");
  for (second = 0; second < 3 && !stop_wanted; ++second) sleep(1); /* a signal ends the sleep */
  printf(stop_wanted ? "Stopped.\n" : "Done.\n");

  /* What was in force before, here the default: Ctrl-C ends the program again. */
  if (QMXUtil_UnRegSigHandler(SIGINT) != 0) return 1;
  return 0;
}
