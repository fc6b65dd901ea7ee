// How a subcommand says that it cannot do its work.
#pragma once

#include <fcntl.h>

#include <stdexcept>
#include <string>

// The message goes to standard error, the exit code is 1.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The command line is wrong in a way that only the subcommand sees; the exit code is 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws "NAME: what errno says".
[[noreturn]] void fail_as_system_said(const std::string& name);

// Throws with the system's reason when `path` is no file that can be opened in this way: the library's
// results do not tell why it could not.
void require_file(const std::string& path, int mode = O_RDONLY);
