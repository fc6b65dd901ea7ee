// qmxutil: the library's families for a shell, on the host and on the device.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "commands.h"
#include "qmxutil_export.h"

#define TEXT(x) #x
#define VERSION(a, b, c) TEXT(a) "." TEXT(b) "." TEXT(c)

namespace {

// To CLI11 a "--" ends a subcommand, too; to `run` it ends only its own options, PROGRAM comes behind it.
void drop_end_of_run_options(int& argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "run") != 0) return;
  for (int i = 2; i < argc && argv[i][0] == '-'; ++i) {
    if (std::strcmp(argv[i], "--") != 0) continue;
    std::copy(argv + i + 1, argv + argc + 1, argv + i);  // the null behind the last word, too
    --argc;
    return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Audio, video, text, INI, process and usage utilities."};
  app.name("qmxutil");
  app.require_subcommand(1);
  app.set_version_flag(
      "--version", "qmxutil " VERSION(QMXUTIL_VERSION_MAJOR, QMXUTIL_VERSION_MINOR, QMXUTIL_VERSION_PATCH));
  add_ini_commands(app);
  add_userdata_commands(app);
  add_system_commands(app);
  add_probe_command(app);
  add_frames_command(app);
  add_convert_command(app);
  add_timer_command(app);
  add_text_commands(app);
  add_basecheck_command(app);
  drop_end_of_run_options(argc, argv);
  try {
    app.parse(argc, argv);
    if (std::fflush(stdout) != 0) throw CommandError(std::string("cannot write: ") + std::strerror(errno));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qmxutil: %s\n", error.what());
    return 1;
  }
  return 0;
}
