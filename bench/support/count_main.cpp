// Runs the rows under the emulator that counts instructions. Prints a line a row: work, peer, instructions
// per unit of work of ours and of the peer, with a tabulator between them.
//   qmxutil_count [PATTERN]
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <vector>

#include "bench_rows.h"

namespace bench {
namespace {

struct Row {
  std::string work;
  std::string peer;
  Work ours;
  Work theirs;
};

std::vector<Row>& rows() {
  static std::vector<Row> all;
  return all;
}

std::vector<void (*)()>& row_adders() {
  static std::vector<void (*)()> all;
  return all;
}

double run(const Row& row, const Work& work, uint64_t passes) {
  benchmark::State state(passes);
  work(state);
  if (!state.error().empty()) {
    std::fprintf(stderr, "%s: %s\n", row.work.c_str(), state.error().c_str());
    std::exit(1);
  }
  return state.instructions_per_pass();
}

// Work whose passes differ (a file toggled between two values, a reader that goes on where it was) is
// averaged over many; what takes long is alike from pass to pass.
double count(const Row& row, const Work& work) {
  const double warm = run(row, work, 2);
  return run(row, work, warm < 2e4 ? 1000 : warm < 1e6 ? 50 : 2);
}

}  // namespace

void add_row(const std::string& work, const std::string& peer, double, Work ours, Work theirs) {
  rows().push_back({work, peer, std::move(ours), std::move(theirs)});
}

// What the kernel does is not counted.
void add_system_row(const std::string&, const std::string&, double, Work, Work) {}

Rows::Rows(void (*add)()) { row_adders().push_back(add); }

void add_note(const std::string& note) { std::fprintf(stderr, "%s\n", note.c_str()); }

}  // namespace bench

int main(int argc, char** argv) {
  if (benchmark::executed_instructions() == 0) {
    std::fprintf(stderr, "qmxutil_count: runs only under the emulator with its counting plugin\n");
    return 1;
  }
  const std::regex pattern(argc > 1 ? argv[1] : ".");
  for (const auto add : bench::row_adders()) add();
  for (const bench::Row& row : bench::rows()) {
    if (!std::regex_search(row.work + "/" + row.peer, pattern)) continue;
    std::printf("%s\t%s\t%.0f\t%.0f\n", row.work.c_str(), row.peer.c_str(), bench::count(row, row.ours),
                bench::count(row, row.theirs));
    std::fflush(stdout);
  }
  return 0;
}
