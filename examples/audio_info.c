/* Tells what an MP3 file is, read piece by piece; without an argument, what an AAC track's two bytes say. */
#include <stdio.h>
#include <string.h>

#include "qmxutil_audio.h"

static int describe_aac(void) {
  static const uint8_t config[2] = {0x12, 0x10}; /* AudioSpecificConfig, from the track's esds box */
  AudioInfo info = {0};
  if (QMXUtil_UtilGetLATMInfo(config, sizeof config, &info) == 0) return 1;
  printf("AAC: %u Hz, %u channels, %u samples a frame\n", info.sampleRate, info.channels,
         QMXUtil_GetAudioSampleSize(255));
  return 0;
}

static int describe_mp3(FILE* file) {
  static uint8_t data[16384]; /* more than the four longest frames, of which three confirm the first */
  const uint8_t* position = data;
  uint32_t remaining = 0, arrived, frame_length, samples, frames = 0;
  AudioInfo info = {0};
  double seconds = 0;
  for (;;) {
    const uint8_t* const begin = position;
    const uint8_t* const frame = QMXUtil_GetMP3Frame(&position, &remaining, &frame_length, &samples);
    if (frame != NULL && frame_length <= remaining) {
      if (frames++ == 0) QMXUtil_GetMP3Info(frame, remaining, &info, NULL);
      seconds += (double)samples / info.sampleRate;
      position += frame_length;
      remaining -= frame_length;
      continue;
    }
    /* The search moved on to a header that is not confirmed yet: keep the byte before it too. */
    if (frame == NULL && position > begin) {
      --position;
      ++remaining;
    }
    memmove(data, position, remaining);
    arrived = (uint32_t)fread(data + remaining, 1, sizeof data - remaining, file);
    if (arrived == 0) break;
    position = data;
    remaining += arrived;
  }
  if (frames == 0) {
    printf("no MP3 frame\n");
    return 1;
  }
  printf("MP3: %u Hz, %u channels, %u bit/s in the first frame\n", info.sampleRate, info.channels,
         info.bitRate);
  printf("%u frames, %.3f s, %u bytes after them\n", frames, seconds, remaining);
  return 0;
}

int main(int argc, char** argv) {
  FILE* file;
  int result;
  if (argc < 2) return describe_aac();
  file = fopen(argv[1], "rb");
  if (file == NULL) {
    perror(argv[1]);
    return 1;
  }
  result = describe_mp3(file);
  fclose(file);
  return result;
}
