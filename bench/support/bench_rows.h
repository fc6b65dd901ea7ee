// Rows of the benchmark table: the library's function beside a peer doing the same work in the same run.
#pragma once

#ifdef QMX_COUNT
#include "counted_state.h"
#else
#include <benchmark/benchmark.h>
#endif

#include <functional>
#include <string>

namespace bench {

using Work = std::function<void(benchmark::State&)>;

// Adds a row. `bar` is the time against the peer that is not to be exceeded (1.0: as fast as the peer); 0 for
// a row that only informs. A benchmark's loop is `for (auto _ : state) …`, as in Google Benchmark.
void add_row(const std::string& work, const std::string& peer, double bar, Work ours, Work theirs);

// The same for work that the kernel does, which is left out where instructions are counted.
void add_system_row(const std::string& work, const std::string& peer, double bar, Work ours, Work theirs);

// Adds a row at load time: `static const bench::Rows rows([] { bench::add_row(…); … });` in a *_bench.cpp.
struct Rows {
  explicit Rows(void (*add)());
};

// A line under the table, such as "OpenSSL is not installed: its rows are left out".
void add_note(const std::string& note);

}  // namespace bench
