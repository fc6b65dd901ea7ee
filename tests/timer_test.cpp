// Interval timers: real timers and signals, and signals that only look like a timer's.
#include "internal/timer.h"

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "qmxutil_timer.h"
#include "recording_base.h"

namespace {
std::atomic<int> deletions;
}

extern "C" int timer_delete(timer_t timer) noexcept {
  ++deletions;
  return reinterpret_cast<decltype(&timer_delete)>(dlsym(RTLD_NEXT, "timer_delete"))(timer);
}

namespace {

using qmxtest::recording;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const int kSignal = SIGRTMIN + 4;

// What every callback of this program has to find true; broken rules are counted.
std::atomic<int> running, overlapping, early, after_free, total_calls;

struct Probe {
  int msec = 0;
  int stop_at = 0;  // the call that returns nonzero
  Clock::time_point created = Clock::now();
  std::atomic<int> calls{0};
  std::atomic<bool> freed{false};
};

int on_expiry(void* arg) {
  Probe& probe = *static_cast<Probe*>(arg);
  if (running.exchange(1) != 0) ++overlapping;
  if (probe.freed) ++after_free;
  const int call = ++probe.calls;
  if (Clock::now() < probe.created + call * milliseconds(probe.msec)) ++early;
  ++total_calls;
  errno = EXDEV;  // not to be seen outside
  running = 0;
  return call == probe.stop_at;
}

TimerHandle* start(Probe& probe, int msec, bool periodic, int stop_at = 0) {
  probe.msec = msec;
  probe.stop_at = stop_at;
  probe.created = Clock::now();
  return QMXUtil_TimerNew(msec, periodic, on_expiry, &probe);
}

template <class Condition>
bool wait_for(Condition condition) {
  const auto give_up = Clock::now() + std::chrono::seconds(60);
  while (!condition() && Clock::now() < give_up) usleep(500);
  return condition();
}

sigset_t mask() {
  sigset_t set = {};  // the C library fills the kernel's part alone
  pthread_sigmask(SIG_SETMASK, nullptr, &set);
  return set;
}

sigset_t block_timer_signal() {
  sigset_t timer_only, before;
  sigemptyset(&timer_only);
  sigaddset(&timer_only, kSignal);
  pthread_sigmask(SIG_BLOCK, &timer_only, &before);
  return before;
}

// What arrives with a signal of this code and value; as in a handler, the signal itself is kept back.
void call_handler(int sig, void* value, int code = SI_TIMER) {
  const sigset_t before = block_timer_signal();
  siginfo_t info = {};
  info.si_code = code;
  info.si_value.sival_ptr = value;
  qmxutil_timer_handler(sig, &info, nullptr);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

class TimerTest : public qmxtest::BaseTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(overlapping, 0);
    EXPECT_EQ(early, 0);
    EXPECT_EQ(after_free, 0);
    BaseTest::TearDown();
  }
};

TEST_F(TimerTest, EachKindOfTimerCallsAsOftenAsItShould) {
  Probe unending, ended, once, once_nonzero, never, witness;
  std::vector<TimerHandle*> timers;
  for (Probe* const probe : {&once, &once_nonzero}) {  // alone: the thread sanitizer loses signals of many
    timers.push_back(start(*probe, 2, false, probe == &once_nonzero));
    EXPECT_TRUE(wait_for([&] { return probe->calls > 0; }));
  }
  timers.insert(timers.end(), {start(unending, 3, true), start(ended, 2, true, 4), start(never, 0, true),
                               start(witness, 100, true), QMXUtil_TimerNew(2, 1, nullptr, nullptr)});
  EXPECT_EQ(timers[3]->periodic, 1);
  EXPECT_EQ(timers[3]->arg, &ended);
  EXPECT_TRUE(wait_for([&] { return witness.calls > 0 && unending.calls > 5; }));
  call_handler(kSignal, timers[0]);  // an earlier timer's at the same address, after this one's own
  for (const auto& [probe, calls] : {std::pair{&ended, 4}, {&once, 1}, {&once_nonzero, 1}, {&never, 0}})
    EXPECT_EQ(probe->calls, calls) << probe->msec;
  call_handler(kSignal, timers[3], SI_QUEUE);  // an expiry that was under way when it ended
  EXPECT_EQ(ended.calls, 4);
  call_handler(kSignal, timers[1], SI_QUEUE);  // a one-shot timer's callback cannot end it
  EXPECT_EQ(once_nonzero.calls, 2);
  itimerspec left = {};
  EXPECT_EQ(timer_gettime(timers[3]->timerId, &left), 0);
  EXPECT_EQ(left.it_interval.tv_nsec, 0) << "signals that nobody wants";
  deletions = 0;
  for (TimerHandle* timer : timers) EXPECT_EQ(QMXUtil_TimerFree(timer), 0);
  EXPECT_EQ(deletions, 7);
  EXPECT_EQ(QMXUtil_TimerFree(timers[0]) + QMXUtil_TimerFree(nullptr), 0);  // unmapped by now
  const auto texts = recording().trace_texts();  // of the periodic one without a callback
  EXPECT_GT(texts.size(), 1u);
  EXPECT_EQ(texts, std::vector<std::string>(texts.size(), "timer->callback is NULL\n"));
  EXPECT_EQ(recording().traces()[0].function, "qmxutil_timer_handler");
}

TEST_F(TimerTest, TheHandlerIsInstalledByTheFirstCallEvenIfThatFailsAndNeverAgain) {
  recording().fail(qmxtest::Op::kCalloc);
  EXPECT_EQ(QMXUtil_TimerNew(10, 0, on_expiry, nullptr), nullptr);
  EXPECT_TRUE(recording().traces().empty());
  struct sigaction action = {};
  sigaction(kSignal, nullptr, &action);
  EXPECT_EQ(action.sa_flags & (SA_SIGINFO | SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_ONSTACK),
            SA_SIGINFO | SA_RESTART);
  EXPECT_EQ(action.sa_sigaction, qmxutil_timer_handler);
  EXPECT_FALSE(sigismember(&action.sa_mask, SIGINT));
  signal(kSignal, SIG_IGN);
  Probe probe;
  QMXUtil_TimerFree(start(probe, 1000, false));
  struct sigaction ignored = {};
  sigaction(kSignal, &action, &ignored);
  EXPECT_EQ(ignored.sa_handler, SIG_IGN);
}

TEST_F(TimerTest, FailuresAreTracedLeaveNothingAndKeepTheMask) {
  Probe probe;
  const sigset_t before = mask();
  for (const int msec : {-1, -1000, INT32_MIN}) EXPECT_EQ(start(probe, msec, true), nullptr) << msec;
  EXPECT_EQ(recording().held(), 0);
  EXPECT_EQ(recording().trace_texts(), std::vector<std::string>(3, "timer time setting failed!! (err.22)\n"));
  const auto first = recording().traces()[0];
  EXPECT_EQ(first.module + " " + first.function, "qmxutil_timer QMXUtil_TimerNew");
  recording().clear_traces();
  std::vector<TimerHandle*> timers;  // as many as there are to be had
  rlimit usual;
  getrlimit(RLIMIT_SIGPENDING, &usual);
  const rlimit few = {std::min<rlim_t>(2000, usual.rlim_max), usual.rlim_max};
  setrlimit(RLIMIT_SIGPENDING, &few);
  while (TimerHandle* const timer = start(probe, 100'000, true)) timers.push_back(timer);
  setrlimit(RLIMIT_SIGPENDING, &usual);
  EXPECT_EQ(recording().trace_texts(), std::vector<std::string>(1, "timer creation failed!! (err.11)\n"));
  EXPECT_EQ(recording().held(), static_cast<int>(timers.size()));
  std::shuffle(timers.begin(), timers.end(), qmxtest::random_words);
  for (TimerHandle* timer : timers) QMXUtil_TimerFree(timer);
  const sigset_t after = mask();
  EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
}

TEST_F(TimerTest, SignalsThatAreNoLiveTimersExpiryAreReportedOrSilent) {
  Probe probe;
  TimerHandle* const dead = start(probe, 100'000, true);
  QMXUtil_TimerFree(dead);
  TimerHandle* const live = start(probe, 100'000, true);
  errno = ENOENT;
  sigqueue(getpid(), kSignal, sigval{});
  call_handler(SIGUSR1, live);
  EXPECT_TRUE(wait_for([] { return recording().traces().size() == 2; }));
  if (dead != live) call_handler(kSignal, dead, SI_QUEUE);
  for (void* none :
       {static_cast<void*>(&probe), reinterpret_cast<void*>(1), reinterpret_cast<void*>(UINTPTR_MAX)})
    call_handler(kSignal, none, SI_QUEUE);
  call_handler(kSignal, live);  // an earlier timer's at the same address
  EXPECT_EQ(probe.calls, 0);
  auto texts = recording().trace_texts();
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::string>{"sig(" + std::to_string(SIGUSR1) + ") is not QMX_TIMER_SIGNAL(" +
                                                 std::to_string(kSignal) + ")\n",
                                             "timer is NULL\n"}));
  probe.msec = 0;
  call_handler(kSignal, live, SI_QUEUE);  // sent on purpose
  EXPECT_EQ(probe.calls, 1);
  EXPECT_EQ(errno, ENOENT);
  QMXUtil_TimerFree(live);
}

TEST_F(TimerTest, ASignalPendingWhenItsTimerIsFreedIsSilent) {
  const sigset_t open = block_timer_signal();
  Probe probe;
  sigset_t pending;
  TimerHandle* const timer = start(probe, 1, true);
  EXPECT_TRUE(wait_for([&] { return sigpending(&pending) == 0 && sigismember(&pending, kSignal); }));
  QMXUtil_TimerFree(timer);
  const sigset_t blocked = mask();
  EXPECT_TRUE(sigismember(&blocked, kSignal));  // as it was, not as most callers have it
  TimerHandle* const next = start(probe, 100'000, true);
  pthread_sigmask(SIG_SETMASK, &open, nullptr);
  QMXUtil_TimerFree(next);
  EXPECT_EQ(probe.calls, 0);
  EXPECT_TRUE(recording().traces().empty());
}

bool ended_well(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status == 0;
}

// Makes the call in a child of fork(), whether it holds there within a minute.
template <class F>
bool holds_in_child(F call) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(call() ? 0 : 1);
  }
  return ended_well(child);
}

// A timer is made, calls back and is freed.
bool timers_work() {
  Probe probe;
  TimerHandle* const timer = start(probe, 1, true);
  const bool called = wait_for([&] { return probe.calls > 2; });
  QMXUtil_TimerFree(timer);
  return called;
}

TEST_F(TimerTest, AChildFreesTheRecordsAndHasTimersOfItsOwn) {
  Probe inherited;
  TimerHandle* const timer = start(inherited, 1, true);
  EXPECT_TRUE(holds_in_child([&] {
    deletions = 0;
    QMXUtil_TimerFree(timer);
    return deletions == 0 && timers_work() && deletions == 1 && recording().held() == 0;
  }));
  EXPECT_TRUE(wait_for([&] { return inherited.calls > 2; }));
  QMXUtil_TimerFree(timer);
}

int call(void* function) { return (*static_cast<std::function<int()>*>(function))(); }

TEST_F(TimerTest, CreatingAndFreeingWaitForARunningCallback) {
  std::atomic<bool> runs{false};
  std::atomic<int> done{0}, did_not_wait{0};
  std::function<int()> look_who_waits = [&] {
    runs = true;
    for (const auto end = Clock::now() + milliseconds(50); Clock::now() < end;) did_not_wait |= done;
    return 0;
  };
  Probe probe;
  TimerHandle *made = nullptr, *const timer = QMXUtil_TimerNew(20, 0, call, &look_who_waits);
  const sigset_t open = block_timer_signal();  // the threads inherit it: the callback runs here
  const auto started = [&] { return runs.load(); };
  std::thread frees([&] { done += wait_for(started) && QMXUtil_TimerFree(timer) == 0; });
  std::thread makes([&] { done += wait_for(started) && (made = start(probe, 0, false)); });
  pthread_sigmask(SIG_SETMASK, &open, nullptr);
  frees.join();
  makes.join();
  EXPECT_EQ(did_not_wait, 0);
  EXPECT_EQ(done, 2);
  QMXUtil_TimerFree(made);
}

TEST_F(TimerTest, AChildDoesNotWaitForACallbackOfItsParent) {
  std::atomic<bool> runs{false}, end{false};
  std::function<int()> lasts = [&] {
    runs = true;
    return wait_for([&] { return end.load(); }) ? 0 : 1;
  };
  TimerHandle* timer = nullptr;
  std::thread other([&] {  // the callback runs here
    timer = QMXUtil_TimerNew(1, 0, call, &lasts);
    wait_for([&] { return end.load(); });
  });
  const sigset_t open = block_timer_signal();
  EXPECT_TRUE(wait_for([&] { return runs.load(); }));
  EXPECT_TRUE(
      holds_in_child([&] { return pthread_sigmask(SIG_SETMASK, &open, nullptr) == 0 && timers_work(); }));
  end = true;
  other.join();
  pthread_sigmask(SIG_SETMASK, &open, nullptr);
  QMXUtil_TimerFree(timer);

  std::atomic<pid_t> child = -1;
  std::function<int()> forks = [&] { return (child = fork()) * 0; };
  timer = QMXUtil_TimerNew(1, 0, call, &forks);
  EXPECT_TRUE(wait_for([&] { return child != -1; }));
  if (child == 0) _exit(alarm(60) == 0 && timers_work() ? 0 : 1);  // the callback has returned there
  EXPECT_TRUE(ended_well(child));
  QMXUtil_TimerFree(timer);
}

// Freed records are unmapped and their addresses soon taken again; the recording base library takes a lock of
// its own in every allocation and release, which the callbacks' threads are interrupted in.
TEST_F(TimerTest, ThousandsOfTimersComeAndGoOnSeveralThreadsWhileCallbacksRun) {
  constexpr size_t kThreads = 4, kTimers = 3000, kAtOnce = 6;  // the emulator has 32 timers in all
  // Not for one-shot timers: the thread sanitizer loses signals while it holds one back.
  const auto periodic = [](size_t i) { return i % 3 != 0; };
  const auto waits = [&](size_t i) { return i % 16 == 0 && periodic(i); };
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      std::vector<Probe> probes(kTimers);
      std::vector<TimerHandle*> timers;
      const auto free_one = [&](size_t i) {
        while (waits(i) && probes[i].calls == 0) QMX_Free(QMX_Malloc(8, 0, 0, "", 0, ""), 0);
        QMXUtil_TimerFree(timers[i]);
        probes[i].freed = true;
      };
      for (size_t i = 0; i < kTimers; ++i) {
        timers.push_back(start(probes[i], 1, periodic(i), i % 5 == 0 ? 2 : 0));
        ASSERT_NE(timers[i], nullptr);
        if (i >= kAtOnce) free_one(i - kAtOnce);
      }
      for (size_t i = kTimers - kAtOnce; i < kTimers; ++i) free_one(i);
      usleep(5000);  // anything that came too late would come now
    });
  }
  block_timer_signal();  // here: the system would prefer the main thread, which is interrupted in nothing
  for (std::thread& thread : threads) thread.join();
  EXPECT_GE(total_calls, static_cast<int>(kThreads * (kTimers / 25)));
  EXPECT_TRUE(recording().traces().empty());
}

}  // namespace
