#include "error.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

void fail_as_system_said(const std::string& name) { throw CommandError(name + ": " + std::strerror(errno)); }

void require_file(const std::string& path, int mode) {
  const int file = open(path.c_str(), mode | O_CLOEXEC | O_NONBLOCK);  // a named pipe is not waited for
  if (file < 0) fail_as_system_said(path);
  struct stat status = {};
  fstat(file, &status);
  close(file);
  if (S_ISREG(status.st_mode)) return;
  if (!S_ISDIR(status.st_mode)) throw CommandError(path + ": not a file that can be searched");
  errno = EISDIR;
  fail_as_system_said(path);
}
