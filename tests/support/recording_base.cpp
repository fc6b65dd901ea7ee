#include "recording_base.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
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
#include <optional>
#include <set>

namespace qmxtest {
namespace {

// Traces come from signal handlers and from children that share this memory: fixed room, no lock.
struct TraceSlot {
  std::atomic<bool> ready;
  int level;
  const char *module, *file, *function, *format;
  char text[600];
};
std::array<TraceSlot, 8192> trace_slots;
std::atomic<size_t> trace_count;

struct Run {  // what reset() begins anew
  std::vector<std::string> calls;
  std::map<Op, int> until_failure;  // calls to go
  std::string failed_call;
  std::set<int> malloc_lines;
  decltype(&QMX_FileRead) read = nullptr;
  decltype(&QMX_FileWrite) write = nullptr;
  std::optional<ReaderScript> script;
  size_t next_record = 0;
};

struct State : Run {
  std::mutex lock;
  std::map<const void*, std::unique_ptr<GuardedBytes>> blocks;
  std::multiset<const void*> handles;
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

// Records a call. True when it is one that must fail.
bool fails(Op op, const char* call, ...) __attribute__((format(printf, 2, 3)));
bool fails(Op op, const char* call, ...) {
  char text[600];
  va_list args;
  va_start(args, call);
  vsnprintf(text, sizeof text, call, args);
  va_end(args);
  State& s = state();
  const std::lock_guard hold(s.lock);
  s.calls.push_back(text);
  const auto to_go = s.until_failure.find(op);
  if (to_go == s.until_failure.end() || --to_go->second != 0) return false;
  s.failed_call = text;
  return true;
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "failed: %s\n", what);
  std::abort();
}

template <class Handle>
Handle* hold(Handle* handle) {
  if (handle != nullptr) Locked()->handles.insert(handle);
  return handle;
}

template <class Handle>
Handle* drop(const char* call, Handle* handle) {
  fails(Op::kCannotFail, "%s", call);
  const auto held = Locked()->handles.extract(handle);
  require(!held.empty(), call);
  return handle;
}

void* new_block(bool failing, uint64_t size, bool clear) {
  if (failing) {
    errno = ENOMEM;
    return nullptr;
  }
  auto guarded = std::make_unique<GuardedBytes>(size, true);
  void* const block = guarded->data();
  if (clear) std::memset(block, 0, size);
  Locked()->blocks[block] = std::move(guarded);
  return block;
}

// The stand-in's function behind the one defined here.
template <class F>
F next(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  require(symbol != nullptr, name);
  return reinterpret_cast<F>(symbol);
}
#define NEXT(function) next<decltype(&function)>(#function)

}  // namespace

RecordingBase& recording() {
  static RecordingBase instance;
  return instance;
}

void RecordingBase::reset() {
  random_words.seed(1);
  clear_traces();
  const Locked locked;
  static_cast<Run&>(state()) = {};
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
  std::vector<std::string> chosen = calls();
  std::erase_if(chosen, [&](const std::string& call) { return !call.starts_with(prefix); });
  return chosen;
}

void RecordingBase::clear_calls() { Locked()->calls.clear(); }
void RecordingBase::fail(Op op, int n) { Locked()->until_failure[op] = n; }
std::string RecordingBase::failed_call() const { return Locked()->failed_call; }
void RecordingBase::stop_failing() { Locked()->until_failure.clear(); }

size_t RecordingBase::malloc_places() const { return Locked()->malloc_lines.size(); }

void RecordingBase::transfer_with(decltype(&QMX_FileRead) read, decltype(&QMX_FileWrite) write) {
  const Locked locked;
  locked->read = read;
  locked->write = write;
}

int RecordingBase::held() const {
  const Locked locked;
  return static_cast<int>(locked->blocks.size() + locked->handles.size());
}

void RecordingBase::program_reader(ReaderScript script) {
  const Locked locked;
  locked->script = std::move(script);
  locked->next_record = 0;
}

TempDir::TempDir() {
  char name[] = "/tmp/qmxutil-test-XXXXXX";
  require(mkdtemp(name) != nullptr, "mkdtemp");
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

// Mappings that were given back, by their size: making one takes the system longer than a test its use.
static thread_local std::map<size_t, std::vector<uint8_t*>> spare_maps;
static thread_local uint32_t buffers;

GuardedBytes::GuardedBytes(size_t size, bool used_once) : used_once_(used_once), size_(size) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t body = (size + page - 1) / page * page;
  map_size_ = page + body + page;
  std::vector<uint8_t*>& spare = spare_maps[map_size_];
  if (used_once || spare.empty()) {
    void* const map = mmap(nullptr, map_size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    require(map != MAP_FAILED, "mmap");
    map_ = static_cast<uint8_t*>(map);
    mprotect(map_ + page, body, PROT_READ | PROT_WRITE);
  } else {
    map_ = spare.back();
    spare.pop_back();
  }
  data_ = map_ + page + (++buffers % 8 == 0 && !used_once ? 0 : body - size);
  if (size > 0) std::memset(data_, 0xA5, size);
}

GuardedBytes::GuardedBytes(const std::string& bytes) : GuardedBytes(bytes.size()) {
  std::memcpy(data_, bytes.data(), bytes.size());
}

GuardedBytes::~GuardedBytes() {
  used_once_ ? static_cast<void>(munmap(map_, map_size_)) : spare_maps[map_size_].push_back(map_);
}

}  // namespace qmxtest

using namespace qmxtest;  // the definitions below are the recording base library itself

void QMX_Trace(const char* module, int level, const char* sourceFile, int, const char* function,
               const char* text, ...) {
  const int saved_errno = errno;
  const size_t index = trace_count.fetch_add(1);
  if (index < trace_slots.size()) {
    TraceSlot& slot = trace_slots[index];
    slot.level = level;
    slot.module = module;
    slot.file = sourceFile;
    slot.function = function;
    slot.format = text;
    va_list args;
    va_start(args, text);
    std::vsnprintf(slot.text, sizeof slot.text, text, args);
    va_end(args);
    slot.ready.store(true, std::memory_order_release);
  }
  errno = saved_errno;
}

void* QMX_Malloc(uint32_t size, int reserved, int fill, const char*, int line, const char*) {
  Locked()->malloc_lines.insert(line);
  EXPECT_EQ(reserved, 0);
  EXPECT_TRUE(fill == QMX_FILL_ZERO || fill == QMX_FILL_NONE);
  return new_block(fails(Op::kMalloc, "Malloc %u %d", size, fill), size, fill == QMX_FILL_ZERO);
}

void* QMX_Calloc(int count, int size, int fill, const char*, int, const char*) {
  const bool failing = fails(Op::kCalloc, "Calloc %d %d %d", count, size, fill);
  return new_block(failing, static_cast<uint64_t>(count) * static_cast<uint64_t>(size), true);
}

void QMX_Free(void* block, int reserved) {
  EXPECT_EQ(reserved, 0);
  fails(Op::kCannotFail, "Free");
  require(Locked()->blocks.erase(block) == 1, "Free of a block that is held");
}

FILE* QMX_FileOpen(const char* path, uint32_t mode) {
  const bool failing = fails(Op::kFileOpen, "FileOpen %s 0x%X", path, mode);
  if (!failing) return hold(NEXT(QMX_FileOpen)(path, mode));
  errno = EACCES;
  return nullptr;
}

int QMX_FileSeek(FILE* stream, int64_t offset, int whence) {
  const bool failing = fails(Op::kFileSeek, "FileSeek %ld %d", offset, whence);
  return failing ? -1 : NEXT(QMX_FileSeek)(stream, offset, whence);
}

int64_t QMX_FileTell(FILE* stream) {
  return fails(Op::kFileTell, "FileTell") ? -1 : NEXT(QMX_FileTell)(stream);
}

int64_t QMX_FileRead(FILE* stream, void* buffer, int64_t count) {
  if (fails(Op::kFileRead, "FileRead %ld", count)) return -1;
  return (state().read != nullptr ? state().read : NEXT(QMX_FileRead))(stream, buffer, count);
}

int64_t QMX_FileWrite(FILE* stream, const void* buffer, int64_t count) {
  const auto write = state().write != nullptr ? state().write : NEXT(QMX_FileWrite);
  if (!fails(Op::kFileWrite, "FileWrite %ld", count)) return write(stream, buffer, count);
  signal(SIGXFSZ, SIG_IGN);  // the stand-in meets the failure itself: no file may have a byte written to it
  int64_t written = 0;
  with_limit(RLIMIT_FSIZE, [&] { written = write(stream, buffer, count); });
  errno = ENOSPC;
  return written;
}

int QMX_FileSync(FILE* stream) { return fails(Op::kFileSync, "FileSync") ? -1 : NEXT(QMX_FileSync)(stream); }

int QMX_FileClose(FILE* stream) { return NEXT(QMX_FileClose)(drop("FileClose", stream)); }

void QMX_ThreadSleep(int duration) {
  fails(Op::kCannotFail, "ThreadSleep %d", duration);
  NEXT(QMX_ThreadSleep)(duration);
}

QMXList* QMX_ListCreate(void) {
  return fails(Op::kListCreate, "ListCreate") ? nullptr : hold(NEXT(QMX_ListCreate)());
}
void QMX_ListDestroy(QMXList* list) { NEXT(QMX_ListDestroy)(drop("ListDestroy", list)); }

QMXListNode* QMX_List_Node_new(void) {
  return fails(Op::kListNodeNew, "ListNodeNew") ? nullptr : hold(NEXT(QMX_List_Node_new)());
}
void QMX_List_Node_delete(QMXListNode* node) { NEXT(QMX_List_Node_delete)(drop("ListNodeDelete", node)); }

QMXBit* QMXBitOpen(const uint8_t* buffer, uint32_t length) {
  return fails(Op::kBitOpen, "BitOpen %u", length) ? nullptr : hold(NEXT(QMXBitOpen)(buffer, length));
}
void QMXBitClose(QMXBit* handle) {
  const std::string call = "BitClose " + std::to_string(NEXT(QMXBitGetProcessed)(handle));
  NEXT(QMXBitClose)(drop(call.c_str(), handle));
}

QMXByte* QMXByte_Open(const uint8_t* buffer, uint32_t length) {
  return fails(Op::kByteOpen, "ByteOpen %u", length) ? nullptr : hold(NEXT(QMXByte_Open)(buffer, length));
}
void QMXByte_Close(QMXByte* handle) { NEXT(QMXByte_Close)(drop("ByteClose", handle)); }

// The media file reader: the stand-in's, or the script's, whose one handle is a fixed address.

int QMXReaderOpen(QMXReader** out, QMXReaderParam* param) {
  if (fails(Op::kReaderOpen, "ReaderOpen %s", param->path)) return -1;
  int result = 0;
  if (state().script) {
    static const uint8_t zeros[sizeof param->reserved8] = {};
    EXPECT_EQ(std::memcmp(param->reserved8, zeros, sizeof zeros), 0) << "bytes not listed must be zero";
    *out = reinterpret_cast<QMXReader*>(&trace_slots);
  } else {
    result = NEXT(QMXReaderOpen)(out, param);
  }
  if (result >= 0) hold(*out);
  return result;
}

int QMXReaderGetInfo(QMXReader* handle, QMXReaderInfo* info) {
  if (fails(Op::kReaderGetInfo, "ReaderGetInfo")) return -1;
  if (!state().script) return NEXT(QMXReaderGetInfo)(handle, info);
  static const QMXReaderInfo zeros = {};
  EXPECT_EQ(std::memcmp(info, &zeros, sizeof zeros), 0) << "the record must come cleared";
  *info = state().script->info;
  return 0;
}

int QMXReaderReadFrame(QMXReader* handle, QMXReaderFrame* frame) {
  State& s = state();
  if (fails(Op::kReaderReadFrame, "ReaderReadFrame %u %u", frame->kind, frame->capacity)) return -1;
  if (!s.script) return NEXT(QMXReaderReadFrame)(handle, frame);
  if (s.next_record >= s.script->records.size()) return -1;
  const ReaderRecord& record = s.script->records[s.next_record++];
  if (record.result < 0) return record.result;
  std::memcpy(frame->data, record.data.data(), std::min<size_t>(record.data.size(), frame->capacity));
  frame->timeMs = record.time_ms;
  return record.result;
}

void QMXReaderClose(QMXReader* handle) {
  drop("ReaderClose", handle);
  if (!state().script) NEXT(QMXReaderClose)(handle);
}
