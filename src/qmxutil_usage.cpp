// Usage monitors: CPU load from /proc/stat, CPU shares of a process's threads from /proc/<pid>/task, and
// process-wide accounting of declared memory.
#include "qmxutil_usage.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/handles.h"
#include "internal/lock.h"
#include "internal/shell.h"
#include "internal/trace.h"
#include "internal/usage.h"
#include "qmx_format.h"
#include "qmx_list.h"

using namespace qmxutil;

static_assert(sizeof(UsageCpuSample) == 40);
static_assert(sizeof(UsageCpuHandle) == 728);
static_assert(offsetof(UsageCpuHandle, prevCore) == 8);
static_assert(offsetof(UsageCpuHandle, prevAll) == 648);
static_assert(sizeof(UsageCpuLoad) == 20);
static_assert(sizeof(UsageCpuLoadMulti) == 184);
static_assert(sizeof(UsageTaskEntry) == 92);
static_assert(sizeof(UsageTaskHandle) == 9296);
static_assert(offsetof(UsageTaskHandle, count) == 68);
static_assert(offsetof(UsageTaskHandle, sumPrevUser) == 9272);
static_assert(sizeof(UsageTaskLoad) == 44);
static_assert(sizeof(UsageTaskLoadList) == 4404);

namespace {

constinit char MODULE[] = "qmxutil-usage";

constexpr size_t kLine = 128;  // bytes of a line of command output, the end included
constexpr char kBlanks[] = " \t\n\v\f\r";

// Takes the next number of a line. False, with the place kept, when something else comes.
bool take_number(const char*& at, long long& number) {
  char* end;
  const long long value = std::strtoll(at, &end, 10);
  if (end == at) return false;
  at = end;
  number = value;
  return true;
}

// Takes the next word of a line; its length is `at` - the result. Empty at the end of the line.
const char* take_word(const char*& at) {
  const char* const word = at + std::strspn(at, kBlanks);
  at = word + std::strcspn(word, kBlanks);
  return word;
}

}  // namespace

// ---- CPU usage

namespace {

constexpr int64_t kNoSample = -1;  // UsageCpuSample::total

// Counters come from outside: their arithmetic wraps.
int64_t wrapping_add(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

int64_t wrapping_sub(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

int64_t percent(int64_t part, int64_t whole) {
  return static_cast<int64_t>(static_cast<uint64_t>(part) * 100) / whole;
}

// Stores a load, or on the first reading of a slot its label, and moves the sample on.
void store_load(UsageCpuSample& prev, const UsageCpuSample& cur, const char* label, UsageCpuLoad& load) {
  if (prev.total == kNoSample) {
    std::snprintf(load.name, sizeof load.name, "%s", label);
    load.user = load.system = load.total = 0;
  } else {
    usage_cpu_calc(&prev, &cur, &load.user, &load.system, &load.total);
  }
  prev = cur;
}

// Reads one line of the pipeline into `cur`; without a line that keeps what it holds. False when the line is
// refused.
bool take_sample(FILE* in, UsageCpuSample& cur) {
  char line[kLine];
  if (read_line(in, line, sizeof line) == Line::kEnd) return true;
  return usage_cpu_parse(line, &cur) != 0;
}

}  // namespace

int usage_cpu_parse(const char* line, UsageCpuSample* sample) {
  long long user = -1, nice = -1, system = -1, idle = -1;
  take_word(line);  // the label
  if (take_number(line, user) && take_number(line, nice) && take_number(line, system)) {
    take_number(line, idle);
  }
  if (user < 0 || system < 0 || idle < 0) {
    TRACE_ERROR("Error! (%lld, %lld, %lld)\n", user, system, idle);
    return 0;
  }
  const int64_t total = wrapping_add(wrapping_add(user, nice), wrapping_add(system, idle));
  *sample = {user, nice, system, idle, total};
  return 1;
}

void usage_cpu_calc(const UsageCpuSample* prev, const UsageCpuSample* cur, int32_t* user, int32_t* system,
                    int32_t* total) {
  const int64_t elapsed = wrapping_sub(cur->total, prev->total);
  if (elapsed <= 0) {
    *user = *system = *total = 0;
    return;
  }
  const int64_t in_user =
      wrapping_add(wrapping_sub(cur->user, prev->user), wrapping_sub(cur->nice, prev->nice));
  *user = static_cast<int32_t>(percent(in_user, elapsed));
  *system = static_cast<int32_t>(percent(wrapping_sub(cur->system, prev->system), elapsed));
  const int64_t idle = percent(wrapping_sub(cur->idle, prev->idle), elapsed);
  const int64_t busy = int64_t{*user} + *system;
  *total = std::max(static_cast<int32_t>(wrapping_sub(100, idle)), static_cast<int32_t>(busy));
}

UsageCpuHandle* QMXUTIL_UsageCpuOpen(void) {
  int32_t cores = 0;
  {
    const Pipe pipe(popen("cat /proc/stat | grep -i \"cpu[0-9]\" | wc -l", "re"));
    char line[kLine];
    if (pipe != nullptr && read_line_start(pipe.get(), line, sizeof line) != Line::kEnd) {
      cores = static_cast<int32_t>(std::strtoul(line, nullptr, 10));
    }
  }
  if (cores <= 0) {
    TRACE_ERROR("corenum %d ??\n", cores);
    return nullptr;
  }
  auto handle = NEW_BLOCK(UsageCpuHandle, sizeof(UsageCpuHandle), QMX_FILL_ZERO);
  if (handle == nullptr) return nullptr;
  handle->coreCount = std::min(cores, QMXUTIL_USAGE_MAX_CORES);
  for (UsageCpuSample& sample : handle->prevCore) sample.total = kNoSample;
  handle->prevAll.total = kNoSample;
  return handle.release();
}

int QMXUTIL_UsageCpuGet(UsageCpuHandle* handle, UsageCpuLoad* out) {
  if (handle == nullptr || out == nullptr) return 0;
  const Pipe pipe(popen("cat /proc/stat | head -n 1", "re"));
  if (pipe == nullptr) {
    TRACE_ERROR("popen error (%d)\n", errno);
    return 0;
  }
  if (!take_sample(pipe.get(), handle->curAll)) return 0;
  store_load(handle->prevAll, handle->curAll, "CPU", *out);
  return 1;
}

int QMXUTIL_UsageCpuGetMulti(UsageCpuHandle* handle, UsageCpuLoadMulti* out) {
  if (handle == nullptr || out == nullptr) return 0;
  char command[64];
  std::snprintf(command, sizeof command, "cat /proc/stat | head -n %d", handle->coreCount + 1);
  const Pipe pipe(popen(command, "re"));
  if (pipe == nullptr) {
    TRACE_ERROR("popen error (%d)\n", errno);
    return 0;
  }
  if (!take_sample(pipe.get(), handle->curAll)) return 0;
  store_load(handle->prevAll, handle->curAll, "CPU*", out->all);
  out->coreCount = handle->coreCount > 1 ? handle->coreCount : 0;
  for (int core = 0; core < out->coreCount; ++core) {
    if (!take_sample(pipe.get(), handle->curCore[core])) continue;
    const char label[] = {'C', 'P', 'U', static_cast<char>('0' + core), '\0'};
    store_load(handle->prevCore[core], handle->curCore[core], label, out->core[core]);
  }
  return 1;
}

void QMXUTIL_UsageCpuClose(void* handle) {
  if (handle != nullptr) QMX_Free(handle, 0);
}

// ---- Task usage

namespace {

bool is_directory(DIR* parent, const dirent& child) {
  if (child.d_type != DT_UNKNOWN) return child.d_type == DT_DIR;
  struct stat status;  // a file system that does not tell
  return fstatat(dirfd(parent), child.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

void append_entry(UsageTaskHandle& handle, const UsageTaskEntry& thread) {
  if (handle.count < QMXUTIL_USAGE_MAX_TASKS) handle.entries[handle.count++] = thread;
}

// Moves the first entry of the thread's name that is still to be matched forward. False when its ticks are
// ahead of the thread's.
bool match_entry(UsageTaskHandle& handle, const UsageTaskEntry& thread) {
  UsageTaskEntry* const end = handle.entries + handle.count;
  UsageTaskEntry* const entry = std::find_if(handle.entries, end, [&](const UsageTaskEntry& candidate) {
    return candidate.updated == 0 && std::strcmp(candidate.name, thread.name) == 0;
  });
  if (entry == end) return true;
  if (entry->curUser > thread.curUser || entry->curSystem > thread.curSystem) return false;
  entry->updated = 1;
  entry->prevUser = entry->curUser;
  entry->prevSystem = entry->curSystem;
  entry->curUser = thread.curUser;
  entry->curSystem = thread.curSystem;
  entry->deltaUser = entry->curUser - entry->prevUser;
  entry->deltaSystem = entry->curSystem - entry->prevSystem;
  return true;
}

void sum_up(UsageTaskHandle& handle) {
  for (const UsageTaskEntry* entry = handle.entries; entry < handle.entries + handle.count; ++entry) {
    handle.sumPrevUser += entry->prevUser;
    handle.sumPrevSystem += entry->prevSystem;
    handle.sumCurUser += entry->curUser;
    handle.sumCurSystem += entry->curSystem;
  }
  handle.sumDeltaUser = handle.sumCurUser - handle.sumPrevUser;
  handle.sumDeltaSystem = handle.sumCurSystem - handle.sumPrevSystem;
}

void clear_sums(UsageTaskHandle& handle) {
  handle.sumPrevUser = handle.sumPrevSystem = 0;
  handle.sumCurUser = handle.sumCurSystem = 0;
  handle.sumDeltaUser = handle.sumDeltaSystem = 0;
}

float share(uint32_t part, uint32_t whole) {
  if (whole == 0) return 0;
  return static_cast<float>(part) / static_cast<float>(whole) * 100.0f;
}

}  // namespace

void usage_task_read_depth1(UsageTaskHandle* handle, const char* dirPath, uint8_t rebuild, int32_t* depth,
                            int32_t* mismatch) {
  const Directory directory(opendir(dirPath));
  if (directory == nullptr) {
    TRACE_ERROR("open (%s) failed! (errno %d)\n", dirPath, errno);
    return;
  }
  while (const dirent* const child = readdir(directory.get())) {
    if (std::strcmp(child->d_name, ".") == 0 || std::strcmp(child->d_name, "..") == 0) continue;
    char path[sizeof handle->path];
    if (std::snprintf(path, sizeof path, "%s/%s", dirPath, child->d_name) < 0) continue;
    if (is_directory(directory.get(), *child)) {
      if (*depth == 1) continue;
      ++*depth;
      usage_task_read_depth1(handle, path, rebuild, depth, mismatch);
      --*depth;
    }
    if (std::strcmp(child->d_name, "stat") != 0) continue;
    const StdFile file(std::fopen(path, "re"));
    if (file == nullptr) {
      TRACE_ERROR("open (%s) failed! (errno %d)\n", path, errno);
      continue;
    }
    char line[256];
    if (read_line(file.get(), line, sizeof line) == Line::kEnd) continue;
    UsageTaskEntry thread = {};
    usage_task_parse(line, &thread);
    if (rebuild != 0) {
      append_entry(*handle, thread);
    } else if (!match_entry(*handle, thread)) {
      *mismatch = 1;
    }
  }
}

int usage_task_parse(const char* line, UsageTaskEntry* entry) {
  constexpr int kUserTime = 14, kSystemTime = 15;  // fields of the line, counted from 1 (proc(5))
  long long number;
  if (!take_number(line, number)) return 0;  // process id
  const char* const name = take_word(line);
  std::memcpy(entry->name, name, std::min(static_cast<size_t>(line - name), sizeof entry->name - 1));
  line += std::strspn(line, kBlanks);
  if (*line == '\0') return 0;
  ++line;  // state
  for (int field = 4; field <= kSystemTime && take_number(line, number); ++field) {
    if (field == kUserTime) entry->curUser = static_cast<uint32_t>(number);
    if (field == kSystemTime) entry->curSystem = static_cast<uint32_t>(number);
  }
  return 0;
}

UsageTaskHandle* QMXUTIL_UsageTaskOpen(const char* processName) {
  if (processName == nullptr) {
    TRACE_ERROR("NULL argument!\n");
    return nullptr;
  }
  char command[kLine];
  Pipe pipe = open_command(command, "pidof %s", processName);
  if (pipe == nullptr) {
    TRACE_ERROR("cmd (%s) failed!\n", command);
    return nullptr;
  }
  char line[kLine];
  if (read_line_start(pipe.get(), line, sizeof line) == Line::kEnd) {
    pipe.reset();
    TRACE_ERROR("fetching pid from %s failed!\n", processName);
    return nullptr;
  }
  pipe.reset();
  auto handle = NEW_BLOCK(UsageTaskHandle, sizeof(UsageTaskHandle), QMX_FILL_ZERO);
  if (handle == nullptr) return nullptr;
  const int pid = static_cast<int>(std::strtol(line, nullptr, 10));
  QMX_snprintf(handle->path, sizeof handle->path, "/proc/%d/task", pid);
  handle->rebuild = 1;
  return handle.release();
}

int QMXUTIL_UsageTaskGet(UsageTaskHandle* handle, UsageTaskLoadList* out) {
  if (handle == nullptr || out == nullptr) return 0;
  out->count = 0;
  const uint8_t rebuild = handle->rebuild;
  if (rebuild != 0) handle->count = 0;
  int32_t depth = 0;
  int32_t mismatch = 0;
  usage_task_read_depth1(handle, handle->path, rebuild, &depth, &mismatch);
  if (mismatch != 0) {
    TRACE_ERROR("Reset by re-arrange of /proc/.../task\n");
    handle->rebuild = 1;
    return 0;
  }
  handle->rebuild = 0;
  if (rebuild != 0) return 1;
  sum_up(*handle);
  const uint32_t whole = handle->sumDeltaUser + handle->sumDeltaSystem;
  for (int32_t i = 0; i < handle->count; ++i) {
    UsageTaskEntry& entry = handle->entries[i];
    UsageTaskLoad& load = out->task[i];
    entry.updated = 0;
    std::snprintf(load.name, sizeof load.name, "%.31s", entry.name);
    load.user = share(entry.deltaUser, whole);
    load.system = share(entry.deltaSystem, whole);
    load.total = share(entry.deltaUser + entry.deltaSystem, whole);
  }
  out->count = handle->count;
  clear_sums(*handle);
  return 1;
}

void QMXUTIL_UsageTaskClose(void* handle) { QMXUTIL_UsageCpuClose(handle); }

// ---- Memory accounting

namespace {

constexpr int kMemTypes = 3;
constexpr char kMemDefaultPath[] = "/tmp/memstat";
constexpr size_t kMemLine = 64;  // bytes of a report line, the end included

struct UsageMemItem {
  char* name;  // null when none was given
  int32_t size;
};

struct UsageMemType {
  char* name;  // null while the slot is free
  QMXList* list;
  int32_t total;
  int32_t nameWidth;
};

struct UsageMem {
  UsageMemType types[kMemTypes];
  int32_t typeCount;
  char* path;
  FILE* file;
};

constinit pthread_mutex_t memlock = PTHREAD_MUTEX_INITIALIZER;
constinit int32_t memrefs = 0;     // opens not yet matched by a close
constinit UsageMem memusage = {};  // all zero while the accounting is closed

UsageMemItem* item_of(const QMXListNode* node) { return static_cast<UsageMemItem*>(node->data); }

// Under memlock.
bool create_lists() {
  for (UsageMemType& type : memusage.types) {
    type.list = QMX_ListCreate();
    if (type.list == nullptr) return false;
  }
  return true;
}

// Releases whatever the table holds, also when it was set up in part only. Under memlock.
void release_table() {
  if (memusage.file != nullptr) QMX_FileClose(memusage.file);
  std::free(memusage.path);
  for (UsageMemType& type : memusage.types) {
    if (type.list == nullptr) continue;
    while (QMXListNode* const node = QMX_ListGetHead(type.list)) {
      std::free(item_of(node)->name);
      QMX_Free(item_of(node), 0);
      QMX_ListDel(type.list, node);
      QMX_List_Node_delete(node);
    }
    QMX_ListDestroy(type.list);
    std::free(type.name);
  }
  memusage = {};
}

// Under memlock. Null when no slot has the name.
UsageMemType* find_type(const char* name) {
  for (UsageMemType& type : memusage.types) {
    if (type.name != nullptr && std::strcmp(type.name, name) == 0) return &type;
  }
  return nullptr;
}

double megabytes(int32_t bytes) { return static_cast<float>(bytes) * 0x1p-20f; }

void print_type(FILE* out, const UsageMemType& type) {
  char line[kMemLine];
  QMX_snprintf(line, sizeof line, "    %s\n", type.name);
  std::fputs(line, out);
  for (QMXListNode* node = QMX_ListGetHead(type.list); node != nullptr;
       node = QMX_ListGetNext(type.list, node)) {
    const UsageMemItem& item = *item_of(node);
    QMX_snprintf(line, sizeof line, "    + %-*s : %6.2f MB\n", type.nameWidth,
                 item.name != nullptr ? item.name : "", megabytes(item.size));
    std::fputs(line, out);
  }
  QMX_snprintf(line, sizeof line, "    = %-*s : %6.2f MB (total)\n", type.nameWidth, "total",
               megabytes(type.total));
  std::fputs(line, out);
  std::fputs(" - - - - - - - - - - - - - - - \n", out);
}

}  // namespace

int QMXUTIL_UsageMemOpen(const char* path) {
  const MutexLock lock(memlock);
  if (memrefs > 0) {
    ++memrefs;
    return 1;
  }
  memusage.path = strdup(path != nullptr ? path : kMemDefaultPath);
  if (memusage.path == nullptr) return 0;
  memusage.file = QMX_FileOpen(memusage.path, QMX_FILE_CREATE);
  if (memusage.file == nullptr) {
    TRACE_ERROR("Open (%s) failed!\n", memusage.path);
    release_table();
    return 0;
  }
  if (!create_lists()) {
    release_table();
    return 0;
  }
  memrefs = 1;
  return 1;
}

int QMXUTIL_UsageMemAdd(const char* type, const char* item, int32_t size) {
  const MutexLock lock(memlock);
  if (memrefs == 0) return 1;
  if (type == nullptr) return 0;
  UsageMemType* slot = find_type(type);
  if (slot == nullptr && memusage.typeCount == kMemTypes) {
    TRACE_ERROR("Adding new type failed! So many types exist in mem list!\n");
    return 0;
  }
  // Everything that can fail comes before the table changes.
  CString type_name(slot == nullptr ? strdup(type) : nullptr);
  auto block = NEW_BLOCK(UsageMemItem, sizeof(UsageMemItem), QMX_FILL_NONE);
  CString item_name(item != nullptr ? strdup(item) : nullptr);
  if (slot == nullptr && type_name == nullptr) return 0;
  if (block == nullptr || (item != nullptr && item_name == nullptr)) return 0;
  const int32_t width = item != nullptr ? static_cast<int32_t>(std::strlen(item)) : 0;
  Node node(QMX_List_Node_new());
  if (node == nullptr) return 0;

  if (slot == nullptr) {
    slot = &memusage.types[memusage.typeCount++];
    slot->name = type_name.release();
  }
  *block = {item_name.release(), size};
  node->data = block.release();
  QMX_ListAddTail(slot->list, node.release());
  slot->total = static_cast<int32_t>(static_cast<uint32_t>(slot->total) + static_cast<uint32_t>(size));
  slot->nameWidth = std::max(slot->nameWidth, width);
  return 1;
}

int QMXUTIL_UsageMemPrint(uint8_t toStdout) {
  const MutexLock lock(memlock);
  if (memrefs == 0) return 1;
  FILE* const out = toStdout != 0 ? stdout : memusage.file;
  std::fputs("\n-------------------------------\n", out);
  std::fputs(" Memory Usage\n", out);
  std::fputs(" - - - - - - - - - - - - - - - \n", out);
  for (const UsageMemType& type : memusage.types) {
    if (type.total > 0) print_type(out, type);
  }
  std::fputs("-------------------------------\n\n", out);
  std::fflush(out);
  return 1;
}

void QMXUTIL_UsageMemClose(void) {
  const MutexLock lock(memlock);
  if (memrefs <= 0 || --memrefs > 0) return;
  release_table();
}
