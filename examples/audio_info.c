/* Tells what an MP3 file is, frame by frame; without an argument, what an AAC track's two bytes say. */
#include <stdio.h>

#include "qmxutil_audio.h"

static int describe_aac(void) {
  static const uint8_t config[2] = {0x12, 0x10}; /* AudioSpecificConfig, from the track's esds box */
  AudioInfo info = {0};
  if (QMXUtil_UtilGetLATMInfo(config, sizeof config, &info) == 0) return 1;
  printf("AAC: %u Hz, %u channels, %u samples a frame\n", info.sampleRate, info.channels,
         QMXUtil_GetAudioSampleSize(255));
  return 0;
}

static int describe_mp3(const uint8_t* data, uint32_t length) {
  AudioInfo info = {0};
  const uint8_t* position = data;
  uint32_t remaining = length, frame_length, samples, frames = 0;
  double seconds = 0;
  if (QMXUtil_GetMP3Info(data, length, &info, NULL) == 0) {
    printf("no MP3 frame\n");
    return 1;
  }
  printf("MP3: %u Hz, %u channels, %u bit/s in the first frame\n", info.sampleRate, info.channels,
         info.bitRate);

  /* The search moves to the frame; the walk moves on behind it, as long as it is all there. */
  while (QMXUtil_GetMP3Frame(&position, &remaining, &frame_length, &samples) != NULL &&
         frame_length <= remaining) {
    position += frame_length;
    remaining -= frame_length;
    seconds += (double)samples / info.sampleRate;
    ++frames;
  }
  printf("%u frames, %.3f s, %u bytes behind them\n", frames, seconds, remaining);
  return 0;
}

int main(int argc, char** argv) {
  static uint8_t data[1 << 20];
  FILE* file;
  size_t length;
  if (argc < 2) return describe_aac();
  file = fopen(argv[1], "rb");
  if (file == NULL) {
    perror(argv[1]);
    return 1;
  }
  length = fread(data, 1, sizeof data, file);
  fclose(file);
  return describe_mp3(data, (uint32_t)length);
}
