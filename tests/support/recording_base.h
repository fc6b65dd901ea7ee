// A base library for tests: it forwards to the stand-in, and on the way records traces and calls, makes any
// chosen call fail, puts an unreadable page behind every block, and counts what is still held.
//
// The test program defines the QMX_* functions itself; being first in the search order it is the one that
// the code under test calls.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bytes.h"
#include "qmxbase.h"

namespace qmxtest {

struct Trace {
  std::string module;
  int level = 0;
  std::string file;
  std::string function;
  std::string format;
  std::string text;  // formatted
};

// Calls that can be made to fail. A failing call does nothing and gives null or -1; a failing write is one
// that the stand-in fails to do.
enum class Op {
  kMalloc,
  kCalloc,
  kFileOpen,
  kFileSeek,
  kFileTell,
  kFileRead,
  kFileWrite,
  kFileSync,
  kListCreate,
  kListNodeNew,
  kBitOpen,
  kByteOpen,
  kReaderOpen,
  kReaderGetInfo,
  kReaderReadFrame,
  kCannotFail
};

// The programmable media file reader: what it answers, record by record.
struct ReaderRecord {
  int result = 0;
  uint64_t time_ms = 0;
  std::string data;
};
struct ReaderScript {
  QMXReaderInfo info = {};
  std::vector<ReaderRecord> records;
};

class RecordingBase {
 public:
  void reset();

  // What was traced, and the texts alone.
  std::vector<Trace> traces() const;
  std::vector<std::string> trace_texts() const;
  void clear_traces();

  // What was called, one text a call, such as "FileOpen /tmp/a.ini 0xF0000002", "FileSeek 0 2",
  // "FileRead 120", "FileWrite 120", "FileSync", "FileClose", "Malloc 2048 0" (size, fill), "Calloc 1 32 0",
  // "Free", "ThreadSleep 100", "ReaderOpen path", "ReaderGetInfo", "ReaderReadFrame 3 1024" (kind, capacity),
  // "ReaderClose". Reads of bits and bytes are not recorded, opens ("BitOpen 20", bytes) and
  // closes ("BitClose 153", bits read) are.
  std::vector<std::string> calls() const;
  std::vector<std::string> calls_of(const std::string& prefix) const;
  void clear_calls();

  // The n-th call of `op` from now on fails (1 is the next, 0 none).
  void fail(Op op, int n = 1);
  std::string failed_call() const;  // as calls() has it; empty while it has not come to that
  void stop_failing();

  // Streams are read and written by these from now on; null: as the stand-in does.
  void transfer_with(decltype(&QMX_FileRead) read, decltype(&QMX_FileWrite) write);

  // Source lines that asked for a block.
  size_t malloc_places() const;

  // Blocks, streams and handles not given back yet.
  int held() const;

  // From now on the media file reader answers from `script`.
  void program_reader(ReaderScript script);
};

RecordingBase& recording();

// A test that begins with a fresh recording and must end with nothing held.
class BaseTest : public ::testing::Test {
 protected:
  void SetUp() override { recording().reset(); }
  void TearDown() override { EXPECT_EQ(recording().held(), 0) << "not given back to the base library"; }
};

// A folder for the duration of a test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& content) const;  // returns its path

 private:
  std::string path_;
};

std::string read_file(const std::string& path);

// Calls it while the process may have no more than that of a resource.
template <class F>
void with_limit(__rlimit_resource resource, F call, rlim_t most = 0) {
  rlimit usual;
  getrlimit(resource, &usual);
  const rlimit limit = {most, usual.rlim_max};
  setrlimit(resource, &limit);
  call();
  setrlimit(resource, &usual);
}

// Bytes in a private mapping between unreadable pages, the second right after them: a step past the end ends
// the test. Of every eighth buffer the first lies right before them, which a step before the beginning shows.
// Buffers used once are unmapped after it.
class GuardedBytes {
 public:
  explicit GuardedBytes(const std::string& bytes);
  explicit GuardedBytes(size_t size, bool used_once = false);
  ~GuardedBytes();
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;
  uint8_t* data() const { return data_; }
  char* text() const { return reinterpret_cast<char*>(data_); }
  uint32_t size() const { return static_cast<uint32_t>(size_); }

 private:
  bool used_once_;
  uint8_t* map_;
  size_t map_size_;
  uint8_t* data_;
  size_t size_;
};

}  // namespace qmxtest
