// qmxutil cpu, tasks, run, which, pid, kill: the running system.
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "qmxutil_process.h"
#include "qmxutil_usage.h"

namespace {

using nlohmann::ordered_json;

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
    std::fflush(stdout);
  }

 private:
  static void show_json(const std::vector<Load>& loads) {
    ordered_json reading = {{"time", std::time(nullptr)}, {"loads", ordered_json::array()}};
    for (const Load& load : loads) {
      const auto tenths = [](double percent) { return std::round(percent * 10) / 10; };
      reading["loads"].push_back({{"name", load.name},
                                  {"user", tenths(load.user)},
                                  {"system", tenths(load.system)},
                                  {"total", tenths(load.total)}});
    }
    const auto as_text = reading.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    std::printf("%s\n", as_text.c_str());
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

  void show_table(const std::vector<Load>& loads) {
    constexpr int kBarWidth = 40;
    winsize window = {};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &window);
    const size_t room = window.ws_row > 2 ? window.ws_row - 2u : loads.size();
    if (drawn_ > 0) std::printf("\033[%zuA", drawn_);  // back to the top
    std::printf("%-18s %7s %7s %7s\033[K\n", "", "user", "system", "total");
    drawn_ = 1;
    for (const Load& load : loads) {
      if (drawn_ > room) break;
      const int busy = std::clamp(static_cast<int>(std::lround(load.total * kBarWidth / 100)), 0, kBarWidth);
      std::printf("%-18s %6.1f%% %6.1f%% %6.1f%%  %s%s\033[K\n", load.name.c_str(), load.user, load.system,
                  load.total, std::string(static_cast<size_t>(busy), '#').c_str(),
                  std::string(static_cast<size_t>(kBarWidth - busy), '.').c_str());
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

struct RunOptions {
  bool shell = false;
  bool no_wait = false;
};

// Ends as the program did: with its exit code, or with 1 when it has none.
[[noreturn]] void end_as(int result) {
  std::fflush(stdout);
  std::exit(result < 0 ? 1 : result & 0xFF);
}

void run_program(const RunOptions& options, const std::vector<std::string>& words) {
  if (words.empty()) throw CLI::RequiredError("PROGRAM");
  if (options.shell) {
    if (words.size() != 1) throw CLI::ValidationError("--shell", "takes one command line");
    end_as(QMXUtil_ExecShell(words[0].c_str()));
  }
  if (options.no_wait) {
    if (words.size() > 2) throw CLI::ValidationError("--no-wait", "takes one argument at most");
    int pid;
    const char* const arg = words.size() == 2 ? words[1].c_str() : nullptr;
    if (QMXUtil_ProcessRun(words[0].c_str(), arg, 0, &pid) == 0) throw CommandError("cannot run " + words[0]);
    std::printf("%d\n", pid);
    return;
  }
  std::string args;
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i].empty() || words[i].find(' ') != std::string::npos) {
      throw CommandError("an argument that is empty or has a blank cannot be passed on; use --shell");
    }
    args.append(i > 1 ? " " : "").append(words[i]);
  }
  if (words.size() > 31 || args.size() > 511) {
    throw CommandError("more than 30 arguments or 511 bytes of them; use --shell");
  }
  if (access(words[0].c_str(), X_OK) != 0) throw CommandError(words[0] + ": " + std::strerror(errno));
  end_as(QMXUtil_ProcessRunEx(words[0].c_str(), args.c_str(), 1));
}

void run_which(const std::vector<std::string>& names) {
  bool all = true;
  for (const std::string& name : names) {
    const bool found = QMXUtil_ProcessWhich(name.c_str()) != 0;
    std::printf("%s: %s\n", name.c_str(), found ? "found" : "not found");
    all = all && found;
  }
  if (!all) throw CommandError("not all were found");
}

void run_pid(const std::string& name) {
  const int pid = QMXUtil_ProcessPID(name.c_str());
  if (pid == 0) throw CommandError(name + " is not running");
  std::printf("%d\n", pid);
}

void run_kill(const std::string& name, int pid) {
  if (name.empty() == (pid == 0)) throw CLI::RequiredError("either NAME or --pid");
  if (QMXUtil_ProcessKill(name.empty() ? nullptr : name.c_str(), pid) == 0) {
    throw CommandError("no process was asked to end");
  }
}

std::shared_ptr<WatchOptions> add_watch_options(CLI::App& command) {
  const auto options = std::make_shared<WatchOptions>();
  command.add_option("--interval", options->interval, "seconds between readings (1)")
      ->check(CLI::Range(0.01, 86400.0));
  command.add_option("--count", options->count, "end after so many; without it, at Ctrl-C")
      ->check(CLI::PositiveNumber);
  command.add_flag("--json", options->json, "one object a reading, one reading a line");
  return options;
}

void add_monitors(CLI::App& app) {
  CLI::App* const cpu = app.add_subcommand("cpu", "Show the load of the machine and of each core");
  const auto cpu_options = add_watch_options(*cpu);
  cpu->footer("Example: qmxutil cpu --interval 0.5 --count 10");
  cpu->callback([cpu_options] { run_cpu(*cpu_options); });

  CLI::App* const tasks =
      app.add_subcommand("tasks", "Show how a process's threads share its CPU time, the heaviest first");
  const auto task_options = add_watch_options(*tasks);
  tasks->add_option("NAME", task_options->process, "the process's name")->required();
  tasks->footer("Example: qmxutil tasks recorder --json");
  tasks->callback([task_options] { run_tasks(*task_options); });
}

}  // namespace

void add_system_commands(CLI::App& app) {
  add_monitors(app);

  CLI::App* const run = app.add_subcommand("run", "Run a program by its path and end with its exit code");
  const auto run_options = std::make_shared<RunOptions>();
  run->add_flag("--shell", run_options->shell, "run one command line with the shell");
  run->add_flag("--no-wait", run_options->no_wait,
                "find PROGRAM on the search path, start it with one argument at most, print its process id");
  run->prefix_command();
  run->footer(
      "Then PROGRAM and its arguments; a \"--\" may stand in front.\nExample: qmxutil run /bin/ls -l /tmp");
  run->callback([run, run_options] { run_program(*run_options, run->remaining()); });

  CLI::App* const which = app.add_subcommand("which", "Tell whether commands exist");
  const auto commands = std::make_shared<std::vector<std::string>>();
  which->add_option("NAME", *commands, "the commands")->required();
  which->footer("Example: qmxutil which ffmpeg find");
  which->callback([commands] { run_which(*commands); });

  CLI::App* const pid = app.add_subcommand("pid", "Print the process id of a running program");
  const auto wanted = std::make_shared<std::string>();
  pid->add_option("NAME", *wanted, "the program's name")->required();
  pid->footer("Example: qmxutil pid recorder");
  pid->callback([wanted] { run_pid(*wanted); });

  CLI::App* const kill = app.add_subcommand("kill", "Ask a process to end (SIGTERM)");
  const auto target = std::make_shared<std::pair<std::string, int>>();
  kill->add_option("NAME", target->first, "the program's name");
  kill->add_option("--pid", target->second, "its process id instead")->check(CLI::PositiveNumber);
  kill->footer("Example: qmxutil kill recorder");
  kill->callback([target] { run_kill(target->first, target->second); });
}
