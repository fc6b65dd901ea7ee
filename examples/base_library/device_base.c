// A device's own base library, as far as it differs from the stand-in: memory within a budget, and trace in
// the form that the system journal reads, "<severity>message". CMakeLists.txt takes the rest from the
// stand-in.
#include <errno.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "qmx_memory.h"
#include "qmx_trace.h"

#define BUDGET (16u << 20)  // bytes that all blocks together may take
#define HEAD 16u            // in front of each block, with its size; keeps the block aligned for any type

static atomic_size_t in_use;

QMX_BASE_API size_t device_base_in_use(void);
size_t device_base_in_use(void) { return in_use; }

void* QMX_Malloc(uint32_t size, int reserved, int fill, const char* file, int line, const char* function) {
  (void)reserved, (void)file, (void)line, (void)function;
  const size_t whole = (size_t)size + HEAD;
  size_t* head = NULL;
  if (atomic_fetch_add(&in_use, whole) + whole <= BUDGET) {
    head = fill == QMX_FILL_ZERO ? calloc(1, whole) : malloc(whole);
  }
  if (head == NULL) {
    atomic_fetch_sub(&in_use, whole);
    return NULL;
  }
  *head = whole;
  return (char*)head + HEAD;
}

void* QMX_Calloc(int count, int size, int fill, const char* file, int line, const char* function) {
  (void)fill;
  const uint64_t bytes = (uint64_t)count * (uint64_t)size;
  if (count < 0 || size < 0 || bytes > BUDGET) return NULL;
  return QMX_Malloc((uint32_t)bytes, 0, QMX_FILL_ZERO, file, line, function);
}

void QMX_Free(void* block, int reserved) {
  (void)reserved;
  size_t* const head = (size_t*)((char*)block - HEAD);
  atomic_fetch_sub(&in_use, *head);
  free(head);
}

// Runs in signal handlers too: no heap, no lock, one write, errno as it was.
void QMX_Trace(const char* module, int level, const char* file, int line, const char* function,
               const char* format, ...) {
  static const char kSeverities[] = {'3', '5', '7'};  // error, notice, debug, as syslog numbers them
  if (level < QMX_TRACE_ERROR || level > QMX_TRACE_VERBOSE) return;
  const int saved_errno = errno;
  char text[512];
  int length =
      snprintf(text, sizeof text, "<%c>%s %s:%d %s: ", kSeverities[level - 1], module, file, line, function);
  va_list args;
  va_start(args, format);
  if (length < (int)sizeof text)
    length += vsnprintf(text + length, sizeof text - (size_t)length, format, args);
  va_end(args);
  if (length >= (int)sizeof text) {  // cut, and a line all the same
    length = (int)sizeof text - 1;
    text[length - 1] = '\n';
  }
  const ssize_t ignored = write(STDERR_FILENO, text, (size_t)length);
  (void)ignored;
  errno = saved_errno;
}
