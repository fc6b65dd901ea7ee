#include "recording_base.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace qmxtest {
namespace {

// Traces come from signal handlers and from children that share this memory: fixed room, no lock.
struct TraceSlot {
  std::atomic<bool> ready;
  int level;
  char module[32];
  char file[48];
  char function[64];
  char format[160];
  char text[600];
};
std::array<TraceSlot, 8192> trace_slots;
std::atomic<size_t> trace_count;

struct State {
  std::mutex lock;
  std::vector<std::string> calls;
  struct Failing {
    int calls_to_go = 0;  // 0 never
    bool later_ones_too = false;
  };
  std::array<Failing, static_cast<size_t>(Op::kCount)> failing{};
  int fail_any = 0;
  bool fired = false;
  bool guard_pages = true;
  struct BlockInfo {
    uint32_t size;
    std::unique_ptr<GuardedBytes> guarded;  // null: from malloc
  };
  std::map<const void*, BlockInfo> blocks;
  std::multiset<const void*> handles;
  bool scripted = false;
  ReaderScript script;
  size_t next_record = 0;
};

State& state() {
  static State* const instance = new State;  // outlives every test object
  return *instance;
}

// The state, locked for one expression.
struct Locked {
  std::lock_guard<std::mutex> hold{state().lock};
  State* operator->() const { return &state(); }
};

std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* text, ...) {
  char buffer[600];
  va_list args;
  va_start(args, text);
  vsnprintf(buffer, sizeof buffer, text, args);
  va_end(args);
  return buffer;
}

void record(std::string call) { Locked()->calls.push_back(std::move(call)); }

bool must_fail(Op op) {
  State& s = state();
  std::lock_guard hold(s.lock);
  State::Failing& failing = s.failing[static_cast<size_t>(op)];
  bool hit = false;
  if (failing.calls_to_go > 0 && --failing.calls_to_go == 0) {
    hit = true;
    if (failing.later_ones_too) failing.calls_to_go = 1;
  }
  if (s.fail_any > 0 && --s.fail_any == 0) hit = true;
  if (hit) s.fired = true;
  return hit;
}

[[noreturn]] void stop(const char* what, const char* name) {
  std::fprintf(stderr, "%s %s\n", what, name);
  std::abort();
}

template <class Handle>
Handle* hold_handle(Handle* handle) {
  if (handle != nullptr) {
    std::lock_guard hold(state().lock);
    state().handles.insert(handle);
  }
  return handle;
}

void drop_handle(const void* handle) {
  std::lock_guard hold(state().lock);
  const auto it = state().handles.find(handle);
  if (it == state().handles.end()) stop("not held, but released:", "a handle");
  state().handles.erase(it);
}

void* new_block(uint64_t size, bool clear) {
  State& s = state();
  State::BlockInfo info{static_cast<uint32_t>(size), nullptr};
  if (s.guard_pages) info.guarded = std::make_unique<GuardedBytes>(size);
  void* const block = s.guard_pages ? info.guarded->data() : std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) return nullptr;
  std::memset(block, clear ? 0 : 0xA5, size);
  std::lock_guard hold(s.lock);
  s.blocks[block] = std::move(info);
  return block;
}

// The stand-in's function behind the one defined here.
template <class F>
F next(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) stop("the stand-in has no", name);
  return reinterpret_cast<F>(symbol);
}
#define NEXT(function) next<decltype(&function)>(#function)

// A call that opens something: recorded, perhaps failed, passed on, its handle held.
template <class F, class... Args>
auto open_next(F function, Op op, const std::string& call, Args... args) {
  record(call);
  return must_fail(op) ? nullptr : hold_handle(function(args...));
}

// A call that works on something open: recorded, perhaps failed, passed on.
template <class F, class... Args>
auto use_next(F function, Op op, const std::string& call, Args... args) {
  record(call);
  return must_fail(op) ? -1 : function(args...);
}

template <class F, class Handle>
auto close_next(F function, const char* call, Handle* handle) {
  record(call);
  drop_handle(handle);
  return function(handle);
}

}  // namespace

RecordingBase& recording() {
  static RecordingBase instance;
  return instance;
}

void RecordingBase::reset() {
  clear_traces();
  State& s = state();
  std::lock_guard hold(s.lock);
  s.calls.clear();
  s.failing.fill({});
  s.fail_any = 0;
  s.fired = false;
  s.guard_pages = true;
  s.scripted = false;
  s.script = {};
  s.next_record = 0;
}

std::vector<Trace> RecordingBase::traces() const {
  std::vector<Trace> all;
  const size_t count = std::min(trace_count.load(), trace_slots.size());
  for (size_t i = 0; i < count; ++i) {
    const TraceSlot& slot = trace_slots[i];
    if (!slot.ready.load(std::memory_order_acquire)) continue;
    all.push_back({slot.module, slot.level, slot.file, slot.function, slot.format, slot.text});
  }
  return all;
}

std::vector<std::string> RecordingBase::trace_texts() const {
  std::vector<std::string> texts;
  for (const Trace& trace : traces()) texts.push_back(trace.text);
  return texts;
}

void RecordingBase::clear_traces() {
  const size_t used = std::min(trace_count.exchange(0), trace_slots.size());
  for (size_t i = 0; i < used; ++i) trace_slots[i].ready.store(false);
}

std::vector<std::string> RecordingBase::calls() const { return Locked()->calls; }

std::vector<std::string> RecordingBase::calls_of(const std::string& prefix) const {
  std::vector<std::string> chosen;
  for (const std::string& call : calls()) {
    if (call.compare(0, prefix.size(), prefix) == 0) chosen.push_back(call);
  }
  return chosen;
}

void RecordingBase::clear_calls() { Locked()->calls.clear(); }

void RecordingBase::fail(Op op, int n, bool later_ones_too) {
  Locked()->failing[static_cast<size_t>(op)] = {n, later_ones_too};
}

void RecordingBase::fail_any(int n) {
  std::lock_guard hold(state().lock);
  state().fail_any = n;
  state().fired = false;
}

bool RecordingBase::fired() const { return Locked()->fired; }

void RecordingBase::stop_failing() {
  std::lock_guard hold(state().lock);
  state().failing.fill({});
  state().fail_any = 0;
}

void RecordingBase::use_guard_pages(bool on) { Locked()->guard_pages = on; }

int RecordingBase::held() const {
  std::lock_guard hold(state().lock);
  return static_cast<int>(state().blocks.size() + state().handles.size());
}

uint32_t RecordingBase::block_size(const void* block) const {
  std::lock_guard hold(state().lock);
  const auto it = state().blocks.find(block);
  return it == state().blocks.end() ? 0 : it->second.size;
}

void RecordingBase::program_reader(ReaderScript script) {
  std::lock_guard hold(state().lock);
  state().scripted = true;
  state().script = std::move(script);
  state().next_record = 0;
}

TempDir::TempDir() {
  char name[] = "/tmp/qmxutil-test-XXXXXX";
  if (mkdtemp(name) == nullptr) std::abort();
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::ofstream(file(name), std::ios::binary) << content;
  return file(name);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

GuardedBytes::GuardedBytes(size_t size) : size_(size) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t body = (size + page - 1) / page * page;
  map_size_ = body + page;
  void* const map = mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) std::abort();
  map_ = static_cast<uint8_t*>(map);
  mprotect(map_ + body, page, PROT_NONE);
  data_ = map_ + body - size;
}

GuardedBytes::GuardedBytes(const std::string& bytes) : GuardedBytes(bytes.size()) {
  std::memcpy(data_, bytes.data(), bytes.size());
}

GuardedBytes::~GuardedBytes() { munmap(map_, map_size_); }

}  // namespace qmxtest

using namespace qmxtest;  // NOLINT: the definitions below are the recording base library itself

void QMX_Trace(const char* module, int level, const char* sourceFile, int, const char* function,
               const char* text, ...) {
  const int saved_errno = errno;
  const size_t index = trace_count.fetch_add(1);
  if (index < trace_slots.size()) {
    TraceSlot& slot = trace_slots[index];
    slot.level = level;
    std::snprintf(slot.module, sizeof slot.module, "%s", module);
    std::snprintf(slot.file, sizeof slot.file, "%s", sourceFile);
    std::snprintf(slot.function, sizeof slot.function, "%s", function);
    std::snprintf(slot.format, sizeof slot.format, "%s", text);
    va_list args;
    va_start(args, text);
    std::vsnprintf(slot.text, sizeof slot.text, text, args);
    va_end(args);
    slot.ready.store(true, std::memory_order_release);
  }
  errno = saved_errno;
}

void* QMX_Malloc(uint32_t size, int reserved, int fill, const char*, int, const char*) {
  EXPECT_EQ(reserved, 0);
  EXPECT_TRUE(fill == QMX_FILL_ZERO || fill == QMX_FILL_NONE);
  record(format("Malloc %u %d", size, fill));
  if (!must_fail(Op::kMalloc)) return new_block(size, fill == QMX_FILL_ZERO);
  errno = ENOMEM;
  return nullptr;
}

void* QMX_Calloc(int count, int size, int fill, const char*, int, const char*) {
  record(format("Calloc %d %d %d", count, size, fill));
  if (!must_fail(Op::kCalloc))
    return new_block(static_cast<uint64_t>(count) * static_cast<uint64_t>(size), true);
  errno = ENOMEM;
  return nullptr;
}

void QMX_Free(void* block, int reserved) {
  EXPECT_EQ(reserved, 0);
  EXPECT_NE(block, nullptr);
  record("Free");
  std::unique_lock hold(state().lock);
  const auto held = state().blocks.extract(block);
  hold.unlock();
  if (held.empty()) stop("not held, but released:", "a block");
  if (held.mapped().guarded == nullptr) std::free(block);
}

FILE* QMX_FileOpen(const char* path, uint32_t mode) {
  record(format("FileOpen %s 0x%X", path, mode));
  if (!must_fail(Op::kFileOpen)) return hold_handle(NEXT(QMX_FileOpen)(path, mode));
  errno = EACCES;
  return nullptr;
}

int QMX_FileSeek(FILE* stream, int64_t offset, int whence) {
  const std::string call = format("FileSeek %lld %d", static_cast<long long>(offset), whence);
  return use_next(NEXT(QMX_FileSeek), Op::kFileSeek, call, stream, offset, whence);
}

int64_t QMX_FileTell(FILE* stream) { return use_next(NEXT(QMX_FileTell), Op::kFileTell, "FileTell", stream); }

int64_t QMX_FileRead(FILE* stream, void* buffer, int64_t count) {
  const std::string call = format("FileRead %lld", static_cast<long long>(count));
  return use_next(NEXT(QMX_FileRead), Op::kFileRead, call, stream, buffer, count);
}

int64_t QMX_FileWrite(FILE* stream, const void* buffer, int64_t count) {
  record(format("FileWrite %lld", static_cast<long long>(count)));
  const auto write = NEXT(QMX_FileWrite);
  if (!must_fail(Op::kFileWrite)) return write(stream, buffer, count);
  rlimit usual;  // the stand-in meets the failure itself: no file may have a byte written to it
  getrlimit(RLIMIT_FSIZE, &usual);
  const rlimit none = {0, usual.rlim_max};
  const auto before = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &none);
  const int64_t written = write(stream, buffer, count);
  setrlimit(RLIMIT_FSIZE, &usual);
  signal(SIGXFSZ, before);
  errno = ENOSPC;
  return written;
}

int QMX_FileSync(FILE* stream) { return use_next(NEXT(QMX_FileSync), Op::kFileSync, "FileSync", stream); }

int QMX_FileClose(FILE* stream) { return close_next(NEXT(QMX_FileClose), "FileClose", stream); }

int QMX_snprintf(char* buffer, uint32_t size, const char* text, ...) {
  va_list args;
  va_start(args, text);
  const int length = std::vsnprintf(buffer, size, text, args);
  va_end(args);
  return length;
}

void QMX_ThreadSleep(int duration) {
  record(format("ThreadSleep %d", duration));
  NEXT(QMX_ThreadSleep)(duration);
}

QMXList* QMX_ListCreate(void) { return open_next(NEXT(QMX_ListCreate), Op::kListCreate, "ListCreate"); }

void QMX_ListDestroy(QMXList* list) { close_next(NEXT(QMX_ListDestroy), "ListDestroy", list); }

QMXListNode* QMX_List_Node_new(void) {
  return open_next(NEXT(QMX_List_Node_new), Op::kListNodeNew, "ListNodeNew");
}

void QMX_List_Node_delete(QMXListNode* node) {
  close_next(NEXT(QMX_List_Node_delete), "ListNodeDelete", node);
}

QMXBit* QMXBitOpen(const uint8_t* buffer, uint32_t length) {
  return open_next(NEXT(QMXBitOpen), Op::kBitOpen, format("BitOpen %u", length), buffer, length);
}

void QMXBitClose(QMXBit* handle) { close_next(NEXT(QMXBitClose), "BitClose", handle); }

QMXByte* QMXByte_Open(const uint8_t* buffer, uint32_t length) {
  return open_next(NEXT(QMXByte_Open), Op::kByteOpen, format("ByteOpen %u", length), buffer, length);
}

void QMXByte_Close(QMXByte* handle) { close_next(NEXT(QMXByte_Close), "ByteClose", handle); }

// The media file reader: the stand-in's, or the script's, whose one handle is a fixed address.
static QMXReader* scripted_reader() { return reinterpret_cast<QMXReader*>(&trace_slots); }

int QMXReaderOpen(QMXReader** out, QMXReaderParam* param) {
  record(format("ReaderOpen %s", param->path));
  if (must_fail(Op::kReaderOpen)) return -1;
  int result = 0;
  if (state().scripted) {
    static const uint8_t zeros[sizeof param->reserved8] = {};
    EXPECT_EQ(std::memcmp(param->reserved8, zeros, sizeof zeros), 0) << "bytes not listed must be zero";
    *out = scripted_reader();
  } else {
    result = NEXT(QMXReaderOpen)(out, param);
  }
  if (result >= 0) hold_handle(*out);
  return result;
}

int QMXReaderGetInfo(QMXReader* handle, QMXReaderInfo* info) {
  record("ReaderGetInfo");
  if (must_fail(Op::kReaderGetInfo)) return -1;
  if (!state().scripted) return NEXT(QMXReaderGetInfo)(handle, info);
  static const QMXReaderInfo zeros = {};
  EXPECT_EQ(std::memcmp(info, &zeros, sizeof zeros), 0) << "the record must come cleared";
  *info = state().script.info;
  return 0;
}

int QMXReaderReadFrame(QMXReader* handle, QMXReaderFrame* frame) {
  record(format("ReaderReadFrame %u %u", frame->kind, frame->capacity));
  if (must_fail(Op::kReaderReadFrame)) return -1;
  State& s = state();
  if (!s.scripted) return NEXT(QMXReaderReadFrame)(handle, frame);
  if (s.next_record >= s.script.records.size()) return -1;
  const ReaderRecord& record = s.script.records[s.next_record++];
  if (record.result < 0) return record.result;
  std::memcpy(frame->data, record.data.data(), std::min<size_t>(record.data.size(), frame->capacity));
  frame->timeMs = record.time_ms;
  return record.result;
}

void QMXReaderClose(QMXReader* handle) {
  record("ReaderClose");
  drop_handle(handle);
  if (!state().scripted) NEXT(QMXReaderClose)(handle);
}
