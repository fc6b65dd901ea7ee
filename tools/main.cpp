// qmxutil: the library's families for a shell, on the host and on the device.
#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "commands.h"
#include "output.h"
#include "qmx_trace.h"
#include "qmxutil_export.h"

#define TEXT(x) #x
#define VERSION(a, b, c) TEXT(a) "." TEXT(b) "." TEXT(c)

namespace {

// A file that is opened later must not take the place of a standard stream that is closed.
void hold_standard_streams() {
  for (int stream = 0; stream < 3; ++stream) {
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", stream == 0 ? O_WRONLY : O_RDONLY);
  }
}

// The command says itself what failed; only `basecheck` is about the traces themselves. The base library
// looks the variable up with its first message, which is sent here, so that a program that `run` starts does
// not inherit it.
void silence_traces(const char* command) {
  if (std::getenv("QMX_TRACE") != nullptr || std::strcmp(command, "basecheck") == 0) return;
  static char off[] = "QMX_TRACE=0";
  putenv(off);
  QMX_Trace("qmxutil", QMX_TRACE_VERBOSE, __FILE_NAME__, __LINE__, __func__, "traces are off\n");
  unsetenv("QMX_TRACE");
}

// To CLI11 a "--" ends a subcommand, too; to `run` it ends only its own options, PROGRAM comes after it.
void drop_end_of_run_options(int& argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "run") != 0) return;
  for (int i = 2; i < argc && argv[i][0] == '-'; ++i) {
    if (std::strcmp(argv[i], "--") != 0) continue;
    std::copy(argv + i + 1, argv + argc + 1, argv + i);  // the null after the last word, too
    --argc;
    return;
  }
}

// CLI11 misses a subcommand where it met a word that is none.
int report_usage_error(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App* command = &app;
  std::string name = "qmxutil";
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().back();
    name += " " + command->get_name();
  }
  const std::vector<std::string> unknown = command->remaining();
  std::string message = error.what();
  if (!unknown.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    const bool is_option = unknown[0].size() > 1 && unknown[0][0] == '-';
    message = std::string("there is no ") + (is_option ? "option " : "subcommand ") + unknown[0];
  }
  std::fprintf(stderr, "%s: %s\nRun \"%s --help\" for more.\n", name.c_str(), message.c_str(), name.c_str());
  return 2;
}

int run(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? app.exit(error) : report_usage_error(app, error);
  } catch (const std::bad_alloc&) {
    std::fputs("qmxutil: not enough memory\n", stderr);
    return 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qmxutil: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  hold_standard_streams();
  silence_traces(argc > 1 ? argv[1] : "");
  CLI::App app{"Audio, video, text, INI, process and usage utilities."};
  app.name("qmxutil");
  app.require_subcommand(1);
  app.set_version_flag(
      "--version", "qmxutil " VERSION(QMXUTIL_VERSION_MAJOR, QMXUTIL_VERSION_MINOR, QMXUTIL_VERSION_PATCH));
  add_ini_commands(app);
  add_userdata_command(app);
  add_meta_command(app);
  add_place_commands(app);
  add_monitor_commands(app);
  add_process_commands(app);
  add_probe_command(app);
  add_frames_command(app);
  add_convert_command(app);
  add_timer_command(app);
  add_text_commands(app);
  add_basecheck_command(app);
  drop_end_of_run_options(argc, argv);
  int result = 0;
  if (argc > 1 && std::strcmp(argv[1], "--complete") == 0) {
    print_completions(app, {argv + 2, argv + argc});
  } else {
    result = run(app, argc, argv);
  }
  try {
    flush_output();
  } catch (const CommandError& error) {
    std::fprintf(stderr, "qmxutil: %s\n", error.what());
    if (result == 0) result = 1;
  }
  return result;
}
