/* Two components declare the memory they hold; a report goes to a file and to standard output. */
#include <stdio.h>
#include <stdlib.h>

#include "qmxutil_usage.h"

#define FRAME_SIZE (1920 * 1080 * 3 / 2)

/* Each component opens and closes the accounting for itself; the last close ends it. */
static void* player_start(void) {
  void* const frames = malloc(4 * FRAME_SIZE);
  QMXUTIL_UsageMemOpen(NULL); /* counted only: the recorder's file is open already */
  if (frames != NULL) QMXUTIL_UsageMemAdd("video", "decoded frames", 4 * FRAME_SIZE);
  return frames;
}

static void player_stop(void* frames) {
  free(frames);
  QMXUTIL_UsageMemClose();
}

int main(void) {
  const int32_t ring_size = 3 << 20;
  void* ring;
  void* frames;
  if (QMXUTIL_UsageMemOpen("/tmp/memory-report") == 0) return 1;
  ring = malloc((size_t)ring_size);
  if (ring != NULL) QMXUTIL_UsageMemAdd("audio", "ring buffer", ring_size);
  frames = player_start();

  QMXUTIL_UsageMemPrint(1); /* to standard output */
  QMXUTIL_UsageMemPrint(0); /* after the earlier reports in the file */

  player_stop(frames);
  free(ring);
  QMXUTIL_UsageMemClose();
  return 0;
}
