// The base library's trace, formatting and sleep.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "basecheck.h"
#include "qmx_format.h"
#include "qmx_trace.h"

namespace basecheck {
namespace {

// ---- Trace

template <class... Args>
void trace(const char* format, Args... args) {
  QMX_Trace("basecheck", QMX_TRACE_ERROR, __FILE_NAME__, __LINE__, __func__, format, args...);
}

const char* volatile no_text = nullptr;  // the compiler would warn of a null that it sees

void null_text() {
  trace("%s %s %d\n", no_text, "text", 5);
  QMX_Trace(no_text, QMX_TRACE_ERROR, no_text, 1, no_text, "%s\n", no_text);
}

void long_text() {
  const std::string longest(100000, 'x');
  trace("%s\n", longest.c_str());
  QMX_Trace("basecheck", QMX_TRACE_ERROR, longest.c_str(), 1, longest.c_str(), "text\n");
}

void errno_after_trace() {
  for (const int error : {0, EINTR, 77}) {
    errno = error;
    trace("text %d\n", error);
    expect(errno == error, "it was %d and is %d", error, errno);
    close(STDERR_FILENO);  // what cannot be written changes nothing
  }
}

// Signals interrupt a thread that allocates, prints and traces, each time somewhere else.
void trace_in_handler() {
  static volatile int handled = 0;
  constexpr int kSignals = 1000;
  struct sigaction action = {};
  action.sa_handler = [](int) {
    trace("from a handler: %d %s\n", handled, "text");
    handled = handled + 1;
  };
  sigset_t alarms;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarms, nullptr);
  std::thread([] { pause(); }).detach();  // the C library takes its locks where there are several threads
  pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often = {{0, 50}, {0, 50}};
  setitimer(ITIMER_REAL, &often, nullptr);
  for (size_t i = 0; handled < kSignals; ++i) {
    std::free(std::malloc(2000 + i % 7 * 1000));
    std::fputs("text", stderr);
    if (i % 16 == 0) trace("from a thread: %zu\n", i);
  }
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
}

// Where the messages go is the base library's to say. On standard error each comes whole.
void message_on_standard_error() {
  int ends[2];
  expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) == 0, "cannot be checked");
  dup2(ends[1], STDERR_FILENO);
  trace("%d %s\n", 17, "text");
  trace("%s\n", std::string(5000, 'x').c_str());
  char text[8192];
  for (const char* what : {"17 text\n", "x\n"}) {
    const ssize_t got = recv(ends[0], text, sizeof text - 1, 0);
    if (got < 0) return;
    text[got] = '\0';
    const char* const end = text + got - std::strlen(what);
    expect(end >= text && std::strcmp(end, what) == 0, "one write ends with '%.20s'",
           end >= text ? end : text);
  }
}

// ---- Formatting

void cut_text() {
  for (uint32_t size = 1; size < 12; ++size) {
    const Guarded room(std::string(size, '#'));
    const Guarded before(std::string(size, '#'), false);
    QMX_snprintf(room.text(), size, "%s%d", "number ", 42);
    QMX_snprintf(before.text(), size, "%s%d", "number ", 42);
    const std::string want = std::string("number 42").substr(0, size - 1);
    expect(room.text() == want && before.text() == want, "'%.12s' in a room of %u bytes", room.text(), size);
  }
}

void conversions() {
  char text[100], same[100];
  const auto compare = [&] { expect(std::strcmp(text, same) == 0, "'%s' and not '%s'", text, same); };
#define BOTH(...)                                \
  std::snprintf(same, sizeof same, __VA_ARGS__); \
  QMX_snprintf(text, sizeof text, __VA_ARGS__);  \
  compare()
  BOTH("%s/%s = %s", "/a", "", "b");
  BOTH("/proc/%d/task %d", INT_MAX, -1);
  BOTH("    + %-*s : %6.2f MB", 12, "name", 1234.565);
  BOTH("%-*s|%6.2f|%%", 2, "longer", -0.125);
#undef BOTH
}

void length_of_text() {
  char text[4];
  const int length = QMX_snprintf(text, sizeof text, "%d", 1234567);
  expect(length == 7, "%d for a text of 7 bytes", length);
}

// ---- Sleep

using std::chrono::steady_clock;

void expect_sleep(int msec) {
  const auto before = steady_clock::now();
  QMX_ThreadSleep(msec);
  const auto slept = std::chrono::duration<double, std::milli>(steady_clock::now() - before).count();
  expect(slept > msec - 1, "it slept %.1f ms of %d", slept, msec);
}

void sleep_in_milliseconds() { expect_sleep(1005); }

void sleep_under_signals() {
  signal(SIGALRM, [](int) {});
  const itimerval often = {{0, 5000}, {0, 5000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  expect_sleep(60);
}

void no_sleep() {
  for (const int msec : {0, -1, INT_MIN}) QMX_ThreadSleep(msec);
}

const Check kChecks[] = {
    {"trace", "a null text does not crash it", true, "messages about null arguments end the process",
     null_text},
    {"trace", "a text of any length does not crash it", true, "messages about long paths end the process",
     long_text},
    {"trace", "it can be called from a signal handler", true, "a stray timer signal stops the process",
     trace_in_handler},
    {"trace", "errno is as it was", false, "callers of libqmxutil find errno changed", errno_after_trace},
    {"trace", "a message on standard error is one write", false, "messages of different threads mix",
     message_on_standard_error},
    {"format", "a text is cut to its room and terminated", true, "long names are written past their room",
     cut_text},
    {"format", "conversions come out as snprintf() prints them", true,
     "INI values, command lines and reports come out wrong", conversions},
    {"format", "the result is the length of the uncut text", false, nullptr, length_of_text},
    {"sleep", "QMX_ThreadSleep counts milliseconds", true,
     "QMXUtil_ProcessKill gives up too early, or too late", sleep_in_milliseconds},
    {"sleep", "signals do not shorten it", true, "QMXUtil_ProcessKill gives up early while timers run",
     sleep_under_signals},
    {"sleep", "0 and less return at once", false, nullptr, no_sleep},
};

}  // namespace

std::span<const Check> trace_checks() { return kChecks; }

}  // namespace basecheck
