/* A periodic timer: ten ticks of 100 ms, counted in signal context, printed outside of it. */
#include <semaphore.h>
#include <stdio.h>

#include "qmxutil_timer.h"

struct ticker {
  sem_t ticked;
  int left;
};

/* Runs inside a signal handler: sem_post() is allowed there, printf() is not. */
static int on_tick(void* arg) {
  struct ticker* ticker = (struct ticker*)arg;
  sem_post(&ticker->ticked);
  return --ticker->left == 0; /* nonzero ends the timer */
}

int main(void) {
  struct ticker ticker = {.left = 10};
  sem_init(&ticker.ticked, 0, 0);
  TimerHandle* timer = QMXUtil_TimerNew(100, 1, on_tick, &ticker);
  if (timer == NULL) {
    fprintf(stderr, "no timer\n");
    return 1;
  }
  for (int tick = 1; tick <= 10; ++tick) {
    while (sem_wait(&ticker.ticked) != 0) continue; /* interrupted by another signal */
    printf("tick %d\n", tick);
  }
  QMXUtil_TimerFree(timer); /* an ended timer is released like any other */
  sem_destroy(&ticker.ticked);
  return 0;
}
