// qmxutil cpu, tasks: loads, reading after reading.
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>

#include "commands.h"
#include "output.h"
#include "qmxutil_usage.h"

namespace {

struct UsageCloser {
  void operator()(void* handle) const { QMXUTIL_UsageCpuClose(handle); }
};
using CpuMonitor = std::unique_ptr<UsageCpuHandle, UsageCloser>;
using TaskMonitor = std::unique_ptr<UsageTaskHandle, UsageCloser>;

struct Load {
  std::string name;
  double user, system, total;
};

struct WatchOptions {
  double interval = 1;
  int count = 0;  // 0: until stopped
  bool json = false;
  std::string process;
};

// Shows one reading after another: on a terminal a table that is drawn over, else lines.
class Display {
 public:
  explicit Display(const WatchOptions& options)
      : json_(options.json), terminal_(!options.json && isatty(STDOUT_FILENO)) {}

  void show(const std::vector<Load>& loads) {
    if (json_) {
      show_json(loads);
    } else if (terminal_) {
      show_table(loads);
    } else {
      show_lines(loads);
    }
    flush_output();
  }

 private:
  static void show_json(const std::vector<Load>& loads) {
    Json items = Json::array();
    for (const Load& load : loads) {
      const auto tenths = [](double percent) { return std::round(percent * 10) / 10; };
      items.push_back({{"name", load.name},
                       {"user", tenths(load.user)},
                       {"system", tenths(load.system)},
                       {"total", tenths(load.total)}});
    }
    const Json reading = {{"time", std::time(nullptr)}, {"loads", items}};
    std::printf("%s\n", reading.in_one_line().c_str());
  }

  static void show_lines(const std::vector<Load>& loads) {
    char time[16];
    const std::time_t now = std::time(nullptr);
    std::strftime(time, sizeof time, "%H:%M:%S", std::localtime(&now));
    for (const Load& load : loads) {
      std::printf("%s  %-18s user %5.1f  system %5.1f  total %5.1f\n", time, load.name.c_str(), load.user,
                  load.system, load.total);
    }
  }

  // A line never reaches the last column, so that none is broken in two.
  static void print_line(const std::string& text, const std::string& bar) {
    const size_t columns = terminal_columns() - 1;
    std::printf("%s%s\033[K\n", fitted(text, columns).c_str(),
                columns > text.size() ? bar.substr(0, columns - text.size()).c_str() : "");
  }

  void show_table(const std::vector<Load>& loads) {
    constexpr size_t kNameWidth = 18, kFixed = 46;
    winsize window = {};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &window);
    const size_t room = window.ws_row > 2 ? window.ws_row - 2u : loads.size();
    const size_t width = std::clamp<size_t>(terminal_columns(), kFixed + 1, kFixed + 40) - kFixed;
    if (drawn_ > 0) std::printf("\033[%zuA", drawn_);  // back to the top
    print_line("                      user  system   total", "");
    drawn_ = 1;
    for (const Load& load : loads) {
      if (drawn_ > room) break;
      char text[80];
      std::snprintf(text, sizeof text, "%-18s %6.1f%% %6.1f%% %6.1f%%  ",
                    fitted(load.name, kNameWidth).c_str(), load.user, load.system, load.total);
      const auto share = std::clamp(load.total / 100, 0.0, 1.0);
      const auto busy = static_cast<size_t>(std::lround(share * static_cast<double>(width)));
      print_line(text, std::string(busy, '#') + std::string(width - busy, '.'));
      ++drawn_;
    }
    std::printf("\033[J");
  }

  const bool json_;
  const bool terminal_;
  size_t drawn_ = 0;
};

// Calls `reading` at once, then every interval, as often as was asked for or until Ctrl-C. The signals wait
// meanwhile, so that none can come between a look at a flag and the sleep.
template <class Reading>
void watch(const WatchOptions& options, const Reading& reading) {
  sigset_t stop;
  sigemptyset(&stop);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop, sig);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  double whole;
  const double fraction = std::modf(options.interval, &whole);
  const timespec interval = {static_cast<std::time_t>(whole), static_cast<long>(fraction * 1e9)};
  reading();
  for (int i = 0; options.count == 0 || i < options.count; ++i) {
    int sig;
    do {
      sig = sigtimedwait(&stop, nullptr, &interval);
    } while (sig == -1 && errno == EINTR);
    if (sig > 0) return;
    reading();
  }
}

void run_cpu(const WatchOptions& options) {
  const CpuMonitor monitor(QMXUTIL_UsageCpuOpen());
  if (!monitor) throw CommandError("cannot find out the number of cores");
  UsageCpuLoadMulti load = {};
  Display display(options);
  bool first = true;
  watch(options, [&] {
    if (QMXUTIL_UsageCpuGetMulti(monitor.get(), &load) == 0) throw CommandError("cannot read the CPU load");
    if (std::exchange(first, false)) return;
    std::vector<Load> loads;
    const auto add = [&](const UsageCpuLoad& one) {
      loads.push_back({one.name, double(one.user), double(one.system), double(one.total)});
    };
    add(load.all);
    std::for_each_n(load.core, load.coreCount, add);
    display.show(loads);
  });
}

void run_tasks(const WatchOptions& options) {
  const TaskMonitor monitor(QMXUTIL_UsageTaskOpen(options.process.c_str()));
  if (!monitor) throw CommandError(options.process + " is not running");
  const auto list = std::make_unique<UsageTaskLoadList>();
  Display display(options);
  bool first = true;
  watch(options, [&] {
    if (access(monitor->path, F_OK) != 0) throw CommandError(options.process + " has ended");
    // A table that has to be built anew shows nothing, as the first one does.
    const bool built = QMXUTIL_UsageTaskGet(monitor.get(), list.get()) == 0 || list->count == 0;
    if (std::exchange(first, false) || built) return;
    std::vector<Load> loads;
    std::for_each_n(list->task, list->count, [&](const UsageTaskLoad& one) {
      loads.push_back({one.name, one.user, one.system, one.total});
    });
    std::stable_sort(loads.begin(), loads.end(),
                     [](const Load& a, const Load& b) { return a.total > b.total; });
    display.show(loads);
  });
}

std::shared_ptr<WatchOptions> add_watch_options(const Command& command) {
  const auto options = std::make_shared<WatchOptions>();
  command.option("--interval", options->interval, "seconds between readings (1)").between(0.01, 86400.0);
  command.option("--count", options->count, "end after so many; without it, at Ctrl-C").between(1, INT_MAX);
  command.option("--json", options->json, "one object a reading, one reading a line");
  return options;
}

}  // namespace

void add_monitor_commands(const Command& app) {
  const Command cpu = app.add("cpu", "Show the load of the machine and of each core");
  const auto cpu_options = add_watch_options(cpu);
  cpu.footer("Example: qmxutil cpu --interval 0.5 --count 10");
  cpu.runs([cpu_options] { run_cpu(*cpu_options); });

  const Command tasks =
      app.add("tasks", "Show how a process's threads share its CPU time, the heaviest first");
  const auto task_options = add_watch_options(tasks);
  tasks.option("NAME", task_options->process, "the process's name").required();
  tasks.footer("Example: qmxutil tasks recorder --json");
  tasks.runs([task_options] { run_tasks(*task_options); });
}
