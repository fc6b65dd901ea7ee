// Trace: one line a message on standard error, in one write(), whatever thread or handler it comes from.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "qmx_trace.h"

namespace {

constexpr char kFilterVariable[] = "QMX_TRACE";
constexpr int kDefaultLevel = QMX_TRACE_ERROR;
constexpr size_t kLongestLine = 1024;  // on the stack, of a signal handler too

// The variable's text, looked up with the first message and kept: getenv() is not for signal handlers that
// interrupt a setenv(). Null until then. Whoever comes at the same time finds and stores the same pointer.
constinit std::atomic<const char*> filter_text = nullptr;

std::string_view filter() {
  const char* text = filter_text.load(std::memory_order_acquire);
  if (text == nullptr) {
    text = std::getenv(kFilterVariable);
    if (text == nullptr) text = "";
    filter_text.store(text, std::memory_order_release);
  }
  return text;
}

bool is_level(std::string_view text) { return text.size() == 1 && text[0] >= '0' && text[0] <= '3'; }

// The filter is a list such as "1,qmxutil_ini=3": a level for all, and levels of single modules. Pieces that
// are neither are passed over; of several that apply the last one counts, a module's own before the general.
int level_shown(std::string_view text, std::string_view module) {
  int general = kDefaultLevel;
  int own = -1;
  while (!text.empty()) {
    const std::string_view piece(text.data(), std::min(text.find_first_of(", "), text.size()));
    text.remove_prefix(std::min(piece.size() + 1, text.size()));
    const size_t name_length = std::min(piece.find('='), piece.size());
    const bool named = name_length < piece.size();
    std::string_view level = piece;
    if (named) level.remove_prefix(name_length + 1);
    if (!is_level(level)) continue;
    if (!named) {
      general = level[0] - '0';
    } else if (module == std::string_view(piece.data(), name_length)) {
      own = level[0] - '0';
    }
  }
  return own >= 0 ? own : general;
}

}  // namespace

// vsnprintf() is not on POSIX's list of async-signal-safe functions. glibc's takes no lock, and no memory
// for the conversions that traces use: integers, characters, pointers and strings, without positional
// arguments, wide strings or widths of a kilobyte. It prints "(null)" for a null string.
void QMX_Trace(const char* module, int level, const char* sourceFile, int line, const char* function,
               const char* format, ...) {
  const int saved_errno = errno;
  if (level <= level_shown(filter(), module != nullptr ? module : "")) {
    char text[kLongestLine];
    int length =
        std::snprintf(text, sizeof text, "%s:%d %s:%d %s: ", module, level, sourceFile, line, function);
    length = std::clamp(length, 0, static_cast<int>(sizeof text) - 1);
    va_list args;
    va_start(args, format);
    const int added = std::vsnprintf(text + length, sizeof text - static_cast<size_t>(length), format, args);
    va_end(args);
    if (added > 0) length = std::min(length + added, static_cast<int>(sizeof text) - 1);
    if (text[length - 1] != '\n') text[length++] = '\n';  // was cut
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, static_cast<size_t>(length));
  }
  errno = saved_errno;
}
