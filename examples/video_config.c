/* A player prepares its decoder: an MP4 track's configuration record (avcC) becomes start-code form, and the
 * picture size is read from it. */
#include <stdio.h>
#include <string.h>

#include "qmxutil_video.h"

/* The payload of an avcC box: an SPS of High profile, level 4, for 1920x1080, and a PPS. */
static const uint8_t
    built_in[] = {0x01, 0x64, 0x00, 0x28, 0xFF, 0xE1, 0x00, 0x1B, /* header, one SPS of 27 bytes */
                  0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27,
                  0xE5, 0xC0, 0x44, 0x00, 0x00, 0x03, 0x00, 0x04, 0x00, 0x00,
                  0x03, 0x00, 0xF0, 0x3C, 0x60, 0xC6, 0x58, 0x01, 0x00, 0x06, /* one PPS of 6 bytes */
                  0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};

enum { RECORD_ROOM = 65536 };

static uint32_t read_record(uint8_t* record, const char* path) {
  FILE* const file = fopen(path, "rb");
  uint32_t length = 0;
  if (file == NULL) {
    perror(path);
    return 0;
  }
  length = (uint32_t)fread(record, 1, RECORD_ROOM, file);
  fclose(file);
  return length;
}

static int refused(const char* why) {
  printf("%s\n", why);
  return 1;
}

int main(int argc, char** argv) {
  /* Each parameter set grows by 2 bytes, the record's header goes: twice the record is always enough. */
  static uint8_t record[2 * RECORD_ROOM];
  uint8_t sps[RECORD_ROOM];
  uint32_t length = sizeof built_in, sps_length;
  VideoInfo info = {0};
  H264ProfileInfo profile = {0};

  memcpy(record, built_in, sizeof built_in);
  if (argc > 1) length = read_record(record, argv[1]);

  /* 1. Is this a record that the codec's parser takes? The track's FourCC chooses the parser. */
  memcpy(&info.codec, "avc1", 4);
  if (!QMXUtil_GetVideoInfo(record, length, &info)) return refused("not an avcC record");
  QMXUtil_GetH264Info(record, length, NULL, &profile);
  printf("profile %u, level %u, samples with %u-byte lengths\n", profile.profile, profile.level,
         profile.nalLengthSize);

  /* 2. What the decoder is fed first: the parameter sets after start codes. */
  QMXUtil_ConvH264InfoToStartCode(record, &length);
  printf("%u bytes of parameter sets for the decoder\n", length);

  /* 3. The size. The record's first unit is the SPS: after a start code (4) and its header (1). Its
   * emulation prevention bytes are removed on a copy, the decoder wants them in place. Reading on into the
   * PPS does no harm: the parser stops after the picture size. */
  if (length <= 5) return refused("no parameter set in it");
  sps_length = length - 5 < sizeof sps ? length - 5 : (uint32_t)sizeof sps;
  memcpy(sps, record + 5, sps_length);
  QMXUtil_H26xRemoveEPB(sps, &sps_length);
  UtilGetSPSPPSInfo(sps, sps_length, &info, &profile);
  printf("coded size %ux%u, %u reference frames\n", info.width, info.height, profile.numRefFrames);
  return 0;
}
