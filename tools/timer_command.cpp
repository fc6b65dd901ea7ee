// qmxutil timer: how late this device calls back.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>

#include "commands.h"
#include "output.h"
#include "qmxutil_timer.h"

namespace {

struct FreeTimer {
  void operator()(TimerHandle* timer) const { QMXUtil_TimerFree(timer); }
};

struct TimerOptions {
  int msec = 0;
  int32_t count = 0;  // 0: until it is interrupted
  bool as_json = false;
};

int64_t now_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

// The callback runs in signal context: it sends the time down a pipe and leaves the rest to the reader.
struct Sender {
  int pipe_end;
  int64_t left;
};

int on_expiry(void* arg) {
  Sender& sender = *static_cast<Sender*>(arg);
  const int64_t now = now_ns();
  if (write(sender.pipe_end, &now, sizeof now) != sizeof now) return 0;  // full: this one counts as missed
  return --sender.left == 0;
}

class Report {
 public:
  Report(int64_t started, int msec, bool as_json)
      : started_(started), interval_(msec * INT64_C(1'000'000)), as_json_(as_json) {}

  // The expiry it belongs to is the last one due by then; those between it and the one before were missed.
  void add(int64_t at) {
    const int64_t number = std::max(number_ + 1, (at - started_) / interval_);
    const double late = static_cast<double>(at - started_ - number * interval_) / 1000;
    const int64_t missed = number - number_ - 1;
    if (as_json_) {
      const Json line = {{"expiry", number}, {"lateUs", late}, {"missed", missed}};
      std::printf("%s\n", line.in_one_line().c_str());
    } else {
      std::printf("expiry %lld, %.1f us late", static_cast<long long>(number), late);
      std::printf(missed > 0 ? ", %lld missed before it\n" : "\n", static_cast<long long>(missed));
    }
    flush_output();
    number_ = number;
    missed_ += missed;
    least_ = count_ == 0 ? late : std::min(least_, late);
    most_ = std::max(most_, late);
    sum_ += late;
    ++count_;
  }

  int64_t count() const { return count_; }

  void print_summary() const {
    if (as_json_ || count_ == 0) return;
    std::printf("%lld expiries, %lld missed; late by %.1f to %.1f us, %.1f on average\n",
                static_cast<long long>(count_), static_cast<long long>(missed_), least_, most_,
                sum_ / static_cast<double>(count_));
  }

 private:
  int64_t started_;
  int64_t interval_;
  bool as_json_;
  int64_t number_ = 0;
  int64_t count_ = 0;
  int64_t missed_ = 0;
  double least_ = 0;
  double most_ = 0;
  double sum_ = 0;
};

void run_timer(const TimerOptions& options) {
  sigset_t interrupts;
  sigemptyset(&interrupts);
  sigaddset(&interrupts, SIGINT);
  sigaddset(&interrupts, SIGTERM);
  sigprocmask(SIG_BLOCK, &interrupts, nullptr);
  const int interrupted = signalfd(-1, &interrupts, SFD_CLOEXEC);
  int ends[2];
  if (interrupted < 0 || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw CommandError("no descriptors left");

  Sender sender = {ends[1], options.count};
  Report report(now_ns(), options.msec, options.as_json);
  const std::unique_ptr<TimerHandle, FreeTimer> timer(QMXUtil_TimerNew(options.msec, 1, on_expiry, &sender));
  if (timer == nullptr) throw CommandError("no timer to be had");
  while (options.count == 0 || report.count() < options.count) {
    pollfd waiting[] = {{ends[0], POLLIN, 0}, {interrupted, POLLIN, 0}};
    if (poll(waiting, 2, -1) <= 0) continue;  // the timer's own signal
    if (waiting[1].revents != 0) break;
    int64_t at;
    while (read(ends[0], &at, sizeof at) == sizeof at) report.add(at);
  }
  report.print_summary();
}

}  // namespace

void add_timer_command(const Command& app) {
  const auto options = std::make_shared<TimerOptions>();
  const Command command = app.add("timer", "Run a periodic timer and print how late each expiry comes");
  command.option("MSEC", options->msec, "interval in milliseconds").required().between(1, INT_MAX);
  command.option("--count", options->count, "end after this many (default: at Ctrl-C)").between(1, INT_MAX);
  command.option("--json", options->as_json, "print a JSON object a line");
  command.footer("Example: qmxutil timer 10 --count 100");
  command.runs([options] { run_timer(*options); });
}
