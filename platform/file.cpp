// Files: standard I/O streams over descriptors that no started program inherits.
//
// Replacing a file's content. The usual caller opens the file, takes a lock on it, writes the new text,
// releases the lock, syncs and closes. Another process that reads under the same lock must find the old text
// or the new one, and the old one is to survive a full disk. So:
//
// - Nothing is cut off at open, where the lock is not held yet, nor at close, where it is no longer held and
//   another process may have written its own text. The old content goes in QMX_FileWrite(), right after the
//   new bytes are in place.
// - Where the new text is the longer one, room for the difference is had before the first old byte is
//   written over. If there is none the file stays as it was. Overwriting needs no room after that on file
//   systems that overwrite in place. A process killed in between leaves the old text followed by zero bytes.
// - A new file that is renamed over the old one would be more robust against a power failure, but a lock
//   belongs to the file and not to its name: those who wait for it would come to hold the lock of a file
//   that is no longer there.
// - A stream that nothing was written to is cut at close all the same; that is an empty file asked for.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "qmx_file.h"

namespace {

constexpr mode_t kPermissions = 0666;  // less the umask

// Streams whose old content is still to go. A stream has no room for a mark of ours.
struct Replacing {
  FILE* stream;
  bool write_failed;  // the old content stays if it ends so
  Replacing* next;
};
constinit Replacing* all_replacing = nullptr;
constinit pthread_mutex_t replacing_lock = PTHREAD_MUTEX_INITIALIZER;

bool add_replacing(FILE* stream) {
  auto* const entry = static_cast<Replacing*>(std::malloc(sizeof(Replacing)));
  if (entry == nullptr) return false;
  pthread_mutex_lock(&replacing_lock);
  *entry = {stream, false, all_replacing};
  all_replacing = entry;
  pthread_mutex_unlock(&replacing_lock);
  return true;
}

Replacing* find_replacing(const FILE* stream) {
  pthread_mutex_lock(&replacing_lock);
  Replacing* entry = all_replacing;
  while (entry != nullptr && entry->stream != stream) entry = entry->next;
  pthread_mutex_unlock(&replacing_lock);
  return entry;
}

void remove_replacing(Replacing* removed) {
  pthread_mutex_lock(&replacing_lock);
  Replacing** link = &all_replacing;
  while (*link != removed) link = &(*link)->next;
  *link = removed->next;
  pthread_mutex_unlock(&replacing_lock);
  std::free(removed);
}

// Makes room for a text that ends at `end`, before the old one is written over.
bool room_is_there(int fd, int64_t end) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return true;
  if (status.st_size == 0 || end <= status.st_size) return true;
  int error;
  do {
    error = posix_fallocate(fd, status.st_size, end - status.st_size);
  } while (error == EINTR);
  if (error != ENOSPC && error != EDQUOT && error != EFBIG) return true;  // no room, or none to be told of
  [[maybe_unused]] const int put_back = ftruncate(fd, status.st_size);
  errno = error;
  return false;
}

int64_t write_through(FILE* stream, const void* buffer, int64_t count) {
  const size_t written = std::fwrite(buffer, 1, static_cast<size_t>(count), stream);
  return std::fflush(stream) == 0 ? static_cast<int64_t>(written) : -1;
}

int64_t replace(Replacing* replacing, FILE* stream, const void* buffer, int64_t count) {
  const int fd = fileno(stream);
  int64_t written = -1;
  if (std::fflush(stream) == 0 && room_is_there(fd, ftello(stream) + count)) {
    written = write_through(stream, buffer, count);
  }
  if (written != count) {
    replacing->write_failed = true;
    return written;
  }
  [[maybe_unused]] const int cut = ftruncate(fd, ftello(stream));  // what is no regular file has no end
  remove_replacing(replacing);
  return written;
}

}  // namespace

FILE* QMX_FileOpen(const char* path, uint32_t mode) {
  int flags;
  const char* stream_mode;
  switch (mode) {
    case QMX_FILE_READ:
      flags = O_RDONLY;
      stream_mode = "r";
      break;
    case QMX_FILE_REPLACE:
      flags = O_WRONLY | O_CREAT;
      stream_mode = "w";
      break;
    case QMX_FILE_CREATE:
      flags = O_WRONLY | O_CREAT | O_APPEND;
      stream_mode = "a";
      break;
    case QMX_FILE_WRITE_IN_PLACE:
    case QMX_FILE_UPDATE:
      flags = O_RDWR;
      stream_mode = "r+";
      break;
    default:
      errno = EINVAL;
      return nullptr;
  }
  const int fd = open(path, flags | O_CLOEXEC, kPermissions);
  if (fd < 0) return nullptr;
  FILE* const stream = fdopen(fd, stream_mode);
  if (stream == nullptr) {
    close(fd);
    return nullptr;
  }
  // Blocks go straight between the caller's buffer and the kernel, and a seek is one system call that reads
  // nothing ahead. Only what is put together line by line is collected.
  if (mode != QMX_FILE_CREATE) std::setvbuf(stream, nullptr, _IONBF, 0);
  if (mode == QMX_FILE_REPLACE && !add_replacing(stream)) {
    std::fclose(stream);
    errno = ENOMEM;
    return nullptr;
  }
  return stream;
}

int QMX_FileSeek(FILE* stream, int64_t offset, int whence) { return fseeko(stream, offset, whence); }

int64_t QMX_FileTell(FILE* stream) { return ftello(stream); }

int64_t QMX_FileRead(FILE* stream, void* buffer, int64_t count) {
  if (count <= 0) return 0;
  const size_t got = std::fread(buffer, 1, static_cast<size_t>(count), stream);
  return got == 0 && std::ferror(stream) ? -1 : static_cast<int64_t>(got);
}

int64_t QMX_FileWrite(FILE* stream, const void* buffer, int64_t count) {
  if (count < 0) count = 0;
  if (Replacing* const replacing = find_replacing(stream)) return replace(replacing, stream, buffer, count);
  return write_through(stream, buffer, count);
}

int QMX_FileSync(FILE* stream) {
  if (std::fflush(stream) != 0) return -1;
  return fsync(fileno(stream));
}

int QMX_FileClose(FILE* stream) {
  if (Replacing* const replacing = find_replacing(stream)) {
    const bool cut = std::fflush(stream) == 0 && !replacing->write_failed;
    if (cut) [[maybe_unused]]
      const int done = ftruncate(fileno(stream), ftello(stream));
    remove_replacing(replacing);
  }
  return std::fclose(stream);
}
