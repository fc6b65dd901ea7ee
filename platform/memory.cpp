// Memory blocks, from the C library's heap.
#include <cstdlib>

#include "qmx_memory.h"

void* QMX_Malloc(uint32_t size, int, int fill, const char*, int, const char*) {
  return fill == QMX_FILL_ZERO ? std::calloc(1, size) : std::malloc(size);
}

void* QMX_Calloc(int count, int size, int, const char*, int, const char*) {
  if (count < 0 || size < 0) return nullptr;
  const uint64_t bytes = static_cast<uint64_t>(count) * static_cast<uint64_t>(size);
  if (bytes > UINT32_MAX) return nullptr;  // a block is no larger than QMX_Malloc() can express
  return std::calloc(1, bytes);
}

void QMX_Free(void* block, int) { std::free(block); }
