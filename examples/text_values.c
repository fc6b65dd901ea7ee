/* Reads the header of a media description: one logical line after another, and the values in it. */
#include <stdio.h>
#include <stdlib.h>

#include "qmx_memory.h"
#include "qmxutil_string.h"

static const char kAnswer[] =
    "Content-Length: 460\r\n"
    "Range: npt=12.5-20\r\n"
    "Location: rtsp://host-7.local:554/stream\r\n"
    "Fmtp: packetization-mode=1;\r\n"
    "  profile-level-id=42001E;\r\n"
    "  sprop-parameter-sets=Z0IAHqtAUB7I,aM44gA==\r\n";

static void print_parameter_sets(const char* list, uint32_t length) {
  /* Three bytes for every four characters, and two for the length of each set: no set has fewer than four. */
  uint8_t* const sets = (uint8_t*)malloc((size_t)length / 4 * 5 + 2);
  uint32_t size, at = 0;
  if (sets == NULL) return;
  size = QMXUtilBase64ConvToBinWLen(list, length, sets);
  while (at + 2 <= size) {
    const uint32_t count = sets[at] | (uint32_t)sets[at + 1] << 8;
    char* const hex = QMXUtil_ConvBinToStr(sets + at + 2, count);
    if (hex == NULL) break;
    printf("  parameter set of %u bytes: %s\n", count, hex);
    QMX_Free(hex, 0);
    at += 2 + count;
  }
  free(sets);
}

static void print_values(const char* line) {
  const char* start;
  const char* at;
  uint32_t length, profile;
  int32_t number;
  if (QMXUtilStrGetDecNumber(line, "Content-Length:", &number) != NULL) printf("%d bytes follow\n", number);
  at = QMXUtilStrGetFloatNumber(line, "npt=", &number);
  if (at != NULL) {
    printf("from %d ms", number);
    /* The position returned is after the number: the rest of the range begins there. */
    if (QMXUtilStrGetFloatNumber(at, "-", &number) != NULL) printf(" to %d ms", number);
    printf("\n");
  }
  if (QMXUtilStrFindString(line, "Location:") == line && QMXUtilStrGetAddress(line, &start, &length) != NULL)
    printf("host %.*s\n", (int)length, start);
  if (QMXUtilStrGetHexNumber(line, "profile-level-id=", &profile) != NULL)
    printf("profile %u, level %u.%u\n", profile >> 16, (profile & 255) / 10, (profile & 255) % 10);
  at = QMXUtilStrFindString(line, "sprop-parameter-sets=");
  if (at != NULL && QMXUtilBase64GetString(at + 21, &start, &length) != NULL)
    print_parameter_sets(start, length);
}

int main(void) {
  char* const text = QMXUtilStrdup(kAnswer); /* the lines are joined in place */
  char* next = text;
  if (text == NULL) return 1;
  while (*next != '\0') {
    uint32_t length;
    char* const end = QMXUtilStrGetLine(next, &length);
    char* const line = QMXUtilStrdupn(end - length, length);
    if (line == NULL) break;
    print_values(line);
    QMX_Free(line, 0);
    next = end;
  }
  QMX_Free(text, 0);
  return 0;
}
