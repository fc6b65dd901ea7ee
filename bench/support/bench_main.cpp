// Runs the rows, several times each in random order, and prints one table of medians.
#include <sys/utsname.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <vector>

#include "bench_rows.h"

namespace bench {
namespace {

struct Row {
  std::string work;
  std::string peer;
  double bar;
};

std::vector<Row>& rows() {
  static std::vector<Row> all;
  return all;
}

std::vector<std::string>& notes() {
  static std::vector<std::string> all;
  return all;
}

std::vector<void (*)()>& row_adders() {
  static std::vector<void (*)()> all;
  return all;
}

class MedianCollector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred)
        std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        medians[run.run_name.function_name] = run.real_accumulated_time / static_cast<double>(run.iterations);
      }
    }
  }
  std::map<std::string, double> medians;  // seconds
};

std::string time_text(double seconds) {
  char text[32];
  if (seconds < 1e-6) {
    std::snprintf(text, sizeof text, "%.1f ns", seconds * 1e9);
  } else if (seconds < 1e-3) {
    std::snprintf(text, sizeof text, "%.2f us", seconds * 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
  }
  return text;
}

std::string processor() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown processor";
}

void print_table(const std::map<std::string, double>& medians) {
  utsname machine{};
  uname(&machine);
  char date[32];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&now));
  std::printf("%s, %s, %s\n", date, machine.machine, processor().c_str());
  std::printf("%-62s %10s  %-36s %10s %7s %6s\n", "work", "time", "peer", "its time", "ratio", "bar");
  int over = 0;
  for (const Row& row : rows()) {
    const auto ours = medians.find(row.work + "/ours");
    const auto theirs = medians.find(row.work + "/" + row.peer);
    if (ours == medians.end() || theirs == medians.end()) continue;  // filtered out
    const double ratio = ours->second / theirs->second;
    const bool missed = row.bar > 0 && ratio > row.bar;
    over += missed;
    std::printf("%-62s %10s  %-36s %10s %7.2f ", row.work.c_str(), time_text(ours->second).c_str(),
                row.peer.c_str(), time_text(theirs->second).c_str(), ratio);
    if (row.bar > 0) {
      std::printf("%6.2f%s\n", row.bar, missed ? "  over" : "");
    } else {
      std::printf("%6s\n", "-");
    }
  }
  for (const std::string& note : notes()) std::printf("%s\n", note.c_str());
  std::printf("%d over their bar\n", over);
}

}  // namespace

void add_row(const std::string& work, const std::string& peer, double bar, Work ours, Work theirs) {
  rows().push_back({work, peer, bar});
  for (const auto& [name, function] : {std::pair{"ours", ours}, std::pair{peer.c_str(), theirs}}) {
    benchmark::RegisterBenchmark((work + "/" + name).c_str(), function)
        ->Repetitions(7)
        ->MinTime(0.02)
        ->UseRealTime()
        ->ReportAggregatesOnly();
  }
}

void add_system_row(const std::string& work, const std::string& peer, double bar, Work ours, Work theirs) {
  add_row(work, peer, bar, std::move(ours), std::move(theirs));
}

Rows::Rows(void (*add)()) { row_adders().push_back(add); }

void add_note(const std::string& note) { notes().push_back(note); }

}  // namespace bench

int main(int argc, char** argv) {
  char program[] = "qmxutil_bench";
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> args = {program, interleave};
  args.insert(args.end(), argv + 1, argv + argc);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;
  for (const auto add : bench::row_adders()) add();
  bench::MedianCollector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  bench::print_table(collector.medians);
  return 0;
}
