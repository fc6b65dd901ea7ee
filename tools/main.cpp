// qmxutil: the library's families for a shell, on the host and on the device.
#include <fcntl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

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

void add_commands(const Command& app) {
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
}

}  // namespace

int main(int argc, char** argv) {
  hold_standard_streams();
  silence_traces(argc > 1 ? argv[1] : "");
  constexpr char kVersion[] =
      "qmxutil " VERSION(QMXUTIL_VERSION_MAJOR, QMXUTIL_VERSION_MINOR, QMXUTIL_VERSION_PATCH);
  const int result = run_command_line(kVersion, argc, argv, add_commands);
  try {
    flush_output();
  } catch (const CommandError& error) {
    std::fprintf(stderr, "qmxutil: %s\n", error.what());
    return result == 0 ? 1 : result;
  }
  return result;
}
