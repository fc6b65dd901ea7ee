// Processes and usage monitors beside the bare system calls that do the same work.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_rows.h"
#include "qmxutil_process.h"
#include "qmxutil_usage.h"

namespace {

void run_program(benchmark::State& state) {
  for (auto _ : state) {
    if (QMXUtil_ProcessRunEx("/bin/true", "a b", 1) != 0) state.SkipWithError("did not run");
  }
}

void spawn_by_hand(benchmark::State& state) {
  char name[] = "/bin/true", a[] = "a", b[] = "b";
  char* const argv[] = {name, a, b, nullptr};
  for (auto _ : state) {
    pid_t child;
    int status;
    if (posix_spawn(&child, name, nullptr, nullptr, argv, environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0) {
      state.SkipWithError("did not run");
    }
  }
}

template <int (*run)(const char*)>
void run_shell(benchmark::State& state) {
  for (auto _ : state) {
    if (run("exit 0") != 0) state.SkipWithError("did not run");
  }
}

void read_cpu(benchmark::State& state) {
  UsageCpuHandle* const handle = QMXUTIL_UsageCpuOpen();
  UsageCpuLoad load;
  for (auto _ : state) {
    if (QMXUTIL_UsageCpuGet(handle, &load) == 0) state.SkipWithError("no reading");
  }
  QMXUTIL_UsageCpuClose(handle);
}

void read_pipeline(benchmark::State& state) {
  for (auto _ : state) {
    char line[128];
    FILE* const pipe = popen("cat /proc/stat | head -n 1", "re");
    if (pipe == nullptr || std::fgets(line, sizeof line, pipe) == nullptr) state.SkipWithError("no line");
    pclose(pipe);
  }
}

constexpr char kType[] = "video";
constexpr char kItem[] = "a decoded frame";

// Additions to a fresh table; opening it and giving it back do not count.
template <int items>
void add_items(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    if (QMXUTIL_UsageMemOpen("/dev/null") == 0) state.SkipWithError("not open");
    state.ResumeTiming();
    for (int i = 0; i < items; ++i) QMXUTIL_UsageMemAdd(kType, kItem, i);
    state.PauseTiming();
    QMXUTIL_UsageMemClose();
    state.ResumeTiming();
  }
}

struct Copies {
  char* block;
  char* type;
  char* item;
};

template <int items>
void allocate_and_copy(benchmark::State& state) {
  std::vector<Copies> held(items);
  for (auto _ : state) {
    for (Copies& one : held) one = {static_cast<char*>(std::malloc(16)), strdup(kType), strdup(kItem)};
    benchmark::DoNotOptimize(held.data());
    state.PauseTiming();
    for (const Copies& one : held) {
      std::free(one.block);
      std::free(one.type);
      std::free(one.item);
    }
    state.ResumeTiming();
  }
}

template <int items>
void add_memory_row() {
  bench::add_row("memory accounting, " + std::to_string(items) + " additions", "malloc and two strdup", 3,
                 add_items<items>, allocate_and_copy<items>);
}

const bench::Rows rows([] {
  bench::add_system_row("start a program and wait", "posix_spawn and waitpid", 1.1, run_program,
                        spawn_by_hand);
  bench::add_system_row("run a shell command", "system", 1.1, run_shell<QMXUtil_ExecShell>,
                        run_shell<std::system>);
  bench::add_system_row("read the CPU load", "popen, fgets, pclose", 1.1, read_cpu, read_pipeline);
  add_memory_row<100>();
  add_memory_row<1000>();
  add_memory_row<10000>();
  add_memory_row<100000>();
});

}  // namespace
