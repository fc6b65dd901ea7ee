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
// - Where it is the shorter one, zero bytes go over the rest of the old text in the same step. A process
//   killed before the cut leaves the new text followed by zero bytes, and that is what a reader without the
//   lock meets.
// - Writing in place has the room beforehand too. After a write that failed neither takes another: the zero
//   bytes that were to follow a text must not be written where the text was to be.
// - A new file that is renamed over the old one would be more robust against a power failure, but a lock
//   belongs to the file and not to its name: those who wait for it would come to hold the lock of a file
//   that is no longer there.
// - A stream that QMX_FileWrite() was not called on is cut at close: to nothing, or to what fputs() wrote.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "qmx_file.h"

namespace {

constexpr mode_t kPermissions = 0666;      // less the umask
constexpr size_t kReadBuffer = 64 * 1024;  // a reader of frames seeks back to a frame's end, mostly within it

// What a stream carries beyond stdio's own, which has no room for it.
struct Extra {
  FILE* stream;
  Extra* next;
  bool rewriting;  // over a text that is to survive a full disk
  bool replacing;  // its rest is still to go
  int failure;     // errno of a write that failed, or 0; after it nothing is written and the rest stays
};
constinit Extra* all_extras = nullptr;
constinit pthread_mutex_t extras_lock = PTHREAD_MUTEX_INITIALIZER;

Extra* add_extra(FILE* stream, size_t room_after) {
  auto* const extra = static_cast<Extra*>(std::malloc(sizeof(Extra) + room_after));
  if (extra == nullptr) return nullptr;
  pthread_mutex_lock(&extras_lock);
  *extra = {stream, all_extras, false, false, 0};
  all_extras = extra;
  pthread_mutex_unlock(&extras_lock);
  return extra;
}

Extra* find_extra(const FILE* stream) {
  pthread_mutex_lock(&extras_lock);
  Extra* extra = all_extras;
  while (extra != nullptr && extra->stream != stream) extra = extra->next;
  pthread_mutex_unlock(&extras_lock);
  return extra;
}

void unlink_extra(Extra* removed) {
  pthread_mutex_lock(&extras_lock);
  Extra** link = &all_extras;
  while (*link != removed) link = &(*link)->next;
  *link = removed->next;
  pthread_mutex_unlock(&extras_lock);
}

// Sets a stream up for its mode, before anything is done with it.
bool prepare(FILE* stream, uint32_t mode) {
  if (mode == QMX_FILE_READ) {
    Extra* const extra = add_extra(stream, kReadBuffer);
    return extra != nullptr &&
           std::setvbuf(stream, reinterpret_cast<char*>(extra + 1), _IOFBF, kReadBuffer) == 0;
  }
  if (mode == QMX_FILE_REPLACE || mode == QMX_FILE_WRITE_IN_PLACE) {
    Extra* const extra = add_extra(stream, 0);
    if (extra == nullptr) return false;
    extra->rewriting = true;
    extra->replacing = mode == QMX_FILE_REPLACE;
  }
  // Blocks go to the kernel in one piece. Only what is put together line by line is collected first.
  if (mode != QMX_FILE_CREATE) std::setvbuf(stream, nullptr, _IONBF, 0);
  return true;
}

// Makes room for a text that ends at `end`, before the old one is written over.
bool room_is_there(int fd, int64_t end) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return true;
  if (end <= status.st_size) return true;
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

// Ends the file where the stream is.
void drop_old_content(Extra& extra) {
  [[maybe_unused]] const int cut =
      ftruncate(fileno(extra.stream), ftello(extra.stream));  // a device has no end
  extra.replacing = false;
}

// Writes the new text and zero bytes over the rest of the old one in one step.
int64_t write_over_old_text(FILE* stream, const void* buffer, int64_t count) {
  const int fd = fileno(stream);
  const int64_t start = ftello(stream);
  struct stat status;
  const bool regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  const int64_t rest = regular ? status.st_size - start - count : 0;
  void* const zeros = rest > 0 ? std::calloc(1, static_cast<size_t>(rest)) : nullptr;
  if (zeros == nullptr) return write_through(stream, buffer, count);
  const iovec parts[] = {{const_cast<void*>(buffer), static_cast<size_t>(count)},
                         {zeros, static_cast<size_t>(rest)}};
  int64_t written;
  do {
    written = pwritev(fd, parts, 2, start);
  } while (written < 0 && errno == EINTR);
  std::free(zeros);
  if (written > count) written = count;
  if (written >= 0 && written < count) errno = ENOSPC;
  return written >= 0 && fseeko(stream, start + written, SEEK_SET) == 0 ? written : -1;
}

int64_t rewrite(Extra& extra, const void* buffer, int64_t count) {
  FILE* const stream = extra.stream;
  if (extra.failure != 0) {
    errno = extra.failure;
    return -1;
  }
  int64_t written = -1;
  if (room_is_there(fileno(stream), ftello(stream) + count)) {
    written =
        extra.replacing ? write_over_old_text(stream, buffer, count) : write_through(stream, buffer, count);
  }
  extra.failure = written == count ? 0 : errno;
  if (extra.replacing && extra.failure == 0) drop_old_content(extra);
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
  if (!prepare(stream, mode)) {
    QMX_FileClose(stream);
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
  Extra* const extra = find_extra(stream);
  if (extra != nullptr && extra->rewriting) return rewrite(*extra, buffer, count);
  return write_through(stream, buffer, count);
}

int QMX_FileSync(FILE* stream) {
  if (std::fflush(stream) != 0) return -1;
  return fsync(fileno(stream));
}

int QMX_FileClose(FILE* stream) {
  Extra* const extra = find_extra(stream);
  if (extra != nullptr) {
    if (extra->replacing && extra->failure == 0) drop_old_content(*extra);
    unlink_extra(extra);  // before another stream can be at the same address
  }
  const int result = std::fclose(stream);
  std::free(extra);
  return result;
}
