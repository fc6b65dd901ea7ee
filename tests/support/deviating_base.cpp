// A base library that forwards to the stand-in, with the one fault that QMX_DEVIATION names by the promise it
// breaks. The command is linked with it.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "qmxbase.h"

#define NEXT(function) reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

static bool is(std::string_view name) { return name == std::getenv("QMX_DEVIATION"); }

void* QMX_Calloc(int count, int size, int, const char* file, int line, const char* function) {
  const uint32_t bytes = static_cast<uint32_t>(count) * static_cast<uint32_t>(size);
  if (is("memory an array too large")) return NEXT(QMX_Malloc)(bytes, 0, QMX_FILL_ZERO, file, line, function);
  if (is("memory QMX_Calloc clears")) return NEXT(QMX_Malloc)(bytes, 0, QMX_FILL_NONE, file, line, function);
  return NEXT(QMX_Calloc)(count, size, 0, file, line, function);
}

QMXListNode* QMX_ListGetNext(QMXList* list, QMXListNode* node) {
  QMXListNode* const next = NEXT(QMX_ListGetNext)(list, node);
  return is("list nodes are walked") && next != nullptr ? NEXT(QMX_ListGetNext)(list, next) : next;
}
void QMX_ListDel(QMXList* list, QMXListNode* node) {
  NEXT(QMX_ListDel)(list, is("list any node can be taken out") ? QMX_ListGetHead(list) : node);
}

int QMX_snprintf(char* buffer, uint32_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, size, format, args), most = static_cast<int>(size) - 1;
  va_end(args);
  if (is("format a text is cut to its room") && length > most) buffer[most] = 'x';
  return is("format the result is the length") && length > most ? most : length;
}
void QMX_ThreadSleep(int msec) {
  if (is("sleep signals do")) return static_cast<void>(usleep(static_cast<unsigned>(msec) * 1000));
  NEXT(QMX_ThreadSleep)(is("sleep QMX_ThreadSleep counts") ? msec / 2 : msec);
}

FILE* QMX_FileOpen(const char* path, uint32_t mode) {
  if (is("file READ: an existing file") && mode == QMX_FILE_READ) std::fclose(std::fopen(path, "a"));
  if (is("file CREATE: written after") && mode == QMX_FILE_CREATE) mode = QMX_FILE_REPLACE;
  if (is("file REPLACE: what is written") && mode == QMX_FILE_REPLACE) mode = QMX_FILE_WRITE_IN_PLACE;
  FILE* const stream = NEXT(QMX_FileOpen)(path, mode);
  if (is("file a write is in") && stream != nullptr) std::setvbuf(stream, nullptr, _IOFBF, 4096);
  return stream;
}
int QMX_FileSeek(FILE* stream, int64_t offset, int whence) {
  return NEXT(QMX_FileSeek)(stream, offset + (whence == SEEK_END && is("file positions after")), whence);
}
int64_t QMX_FileRead(FILE* stream, void* buffer, int64_t count) {
  const int64_t got = NEXT(QMX_FileRead)(stream, buffer, count);
  return got < count && is("file at the end 0 or less") ? -1 : got;
}
int64_t QMX_FileWrite(FILE* stream, const void* buffer, int64_t count) {
  if (!is("file a write is in")) return NEXT(QMX_FileWrite)(stream, buffer, count);
  return static_cast<int64_t>(std::fwrite(buffer, 1, static_cast<size_t>(count), stream));
}

QMXBit* QMXBitOpen(const uint8_t* buffer, uint32_t length) {
  static uint8_t room[1000];
  if (!is("bits missing bits are 1s")) return NEXT(QMXBitOpen)(buffer, length);
  return NEXT(QMXBitOpen)(static_cast<uint8_t*>(std::memcpy(room, buffer, length)), sizeof room);
}
uint32_t QMXBitShow(QMXBit* handle, uint32_t n) {
  return NEXT(QMXBitShow)(handle, n) & (is("bits Exp-Golomb codes") ? ~0x7Fu : ~0u);
}
void QMXByte_Get_string(QMXByte* handle, uint8_t* destination, uint32_t length, int* error) {
  NEXT(QMXByte_Get_string)(handle, destination, length, error);
  if (is("bytes nothing outside")) destination[length] = 0;
}

int QMXReaderGetInfo(QMXReader* handle, QMXReaderInfo* info) {
  const int result = NEXT(QMXReaderGetInfo)(handle, info);
  if (is("reader the recording")) std::memmove(reinterpret_cast<char*>(info) + 4, info, sizeof *info - 4);
  return result;
}
