// Creating and freeing a timer, against the bare POSIX calls.
#include <signal.h>

#include <ctime>

#include "bench_rows.h"
#include "qmxutil_timer.h"

namespace {

constexpr int kMsec = 100'000;  // none of them fires

void ours(benchmark::State& state) {
  for (auto _ : state) QMXUtil_TimerFree(QMXUtil_TimerNew(kMsec, 1, nullptr, nullptr));
}

void bare(benchmark::State& state) {
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGRTMIN + 4;
  const itimerspec spec = {{kMsec / 1000, 0}, {kMsec / 1000, 0}};
  for (auto _ : state) {
    timer_t timer;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0) state.SkipWithError("no timer");
    timer_settime(timer, 0, &spec, nullptr);
    timer_delete(timer);
  }
}

const bench::Rows rows([] {
  bench::add_system_row("Timer: create, arm, free", "timer_create, _settime, _delete", 1.5, ours, bare);
});

}  // namespace
