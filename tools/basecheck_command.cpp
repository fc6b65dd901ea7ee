// qmxutil basecheck: the base library that this process has loaded, held to the contract of base/*.h.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <vector>

#include "basecheck.h"
#include "commands.h"
#include "output.h"

// ---- What the checks share

namespace basecheck {

void expect(bool holds, const char* seen, ...) {
  if (holds) return;
  char text[400];
  va_list args;
  va_start(args, seen);
  std::vsnprintf(text, sizeof text, seen, args);
  va_end(args);
  throw Differs{text};
}

static std::mt19937 words;
uint32_t any_word() { return static_cast<uint32_t>(words()); }
uint32_t below(size_t n) { return static_cast<uint32_t>(words() % n); }
std::string any_bytes(size_t size) {
  std::string bytes(size, 0);
  for (char& byte : bytes) byte = static_cast<char>(words());
  return bytes;
}

Guarded::Guarded(const std::string& bytes, bool at_end) : size_(static_cast<uint32_t>(bytes.size())) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t body = (bytes.size() + page - 1) / page * page;
  map_size_ = body + 2 * page;
  void* const map = mmap(nullptr, map_size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) throw Differs{"cannot be checked: no memory"};
  map_ = static_cast<uint8_t*>(map);
  mprotect(map_ + page, body, PROT_READ | PROT_WRITE);
  data_ = map_ + page + (at_end ? body - bytes.size() : 0);
  if (!bytes.empty()) std::memcpy(data_, bytes.data(), bytes.size());
}

Guarded::~Guarded() { munmap(map_, map_size_); }

std::string content(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

const char* put(const char* path, const std::string& bytes) {
  if (!(std::ofstream(path, std::ios::binary) << bytes).flush()) {
    throw Differs{"cannot be checked: no file can be written"};
  }
  return path;
}

Stream open_stream(const char* path, uint32_t mode) {
  Stream stream(QMX_FileOpen(path, mode));
  expect(stream != nullptr, "QMX_FileOpen with mode 0x%X gives null: %s", mode, std::strerror(errno));
  return stream;
}

bool in_second_process(const std::function<bool()>& part) {
  const pid_t child = fork();
  if (child == 0) _exit(part() ? 0 : 1);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

int open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

}  // namespace basecheck

// ---- Running them

namespace {

using basecheck::Check;
using std::chrono::steady_clock;

struct Options {
  std::string folder = "/tmp";
  std::string media;
  std::string group;  // what a check's line begins with
  int seconds = 10;
  bool as_json = false;
};

struct Result {
  const Check* check;
  bool holds;
  std::string seen;
  const char* verdict() const { return holds ? "holds" : check->relied_on ? "DIFFERS" : "not relied on"; }
};

// In the child: what the base library prints is not the table's.
[[noreturn]] void run_and_tell(const Check& check, const std::string& folder, int tell) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nowhere < 0 || dup2(nowhere, STDERR_FILENO) < 0 || chdir(folder.c_str()) != 0) _exit(1);
  std::string seen;
  try {
    check.run();
  } catch (const basecheck::Differs& differs) {
    seen = differs.seen;
  }
  _exit(write(tell, seen.data(), seen.size()) == static_cast<ssize_t>(seen.size()) ? 0 : 1);
}

// What a child says until it ends; false when it takes too long.
bool listen(int from, std::string& said, int seconds) {
  const auto until = steady_clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady_clock::now()).count();
    pollfd waiting = {from, POLLIN, 0};
    const int ready = left > 0 ? poll(&waiting, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno == EINTR) continue;
    char text[512];
    const ssize_t got = ready > 0 ? read(from, text, sizeof text) : -1;
    if (got <= 0) return got == 0;
    said.append(text, static_cast<size_t>(got));
  }
}

// A base library that crashes or hangs takes the check with it, and no more.
Result run_apart(const Check& check, const std::string& folder, int seconds) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw CommandError("no descriptors left");
  const pid_t child = fork();
  if (child == 0) run_and_tell(check, folder, ends[1]);
  close(ends[1]);
  if (child < 0) throw CommandError("no process to be had");
  setpgid(child, child);
  std::string seen;
  const bool ended = listen(ends[0], seen, seconds);
  close(ends[0]);
  if (!ended) kill(-child, SIGKILL);  // and what it started
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!ended) return {&check, false, "hung, and was ended after " + std::to_string(seconds) + " s"};
  if (WIFSIGNALED(status)) return {&check, false, std::string("crashed: ") + strsignal(WTERMSIG(status))};
  if (status != 0) return {&check, false, "ended the process, code " + std::to_string(WEXITSTATUS(status))};
  return {&check, seen.empty(), seen};
}

// A folder of its own for the checks' files.
class Folder {
 public:
  explicit Folder(const std::string& in) : path_(in + "/qmxutil-basecheck-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw CommandError("no folder can be made in '" + in + "'");
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string base_library() {
  Dl_info info;
  return dladdr(reinterpret_cast<void*>(&QMX_FileOpen), &info) != 0 ? info.dli_fname : "?";
}

// A remark below its line of the table, in lines of at most 80 characters.
void print_remark(const char* head, const std::string& text) {
  std::string line = std::string("          ") + head;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (line.size() + 1 + word.size() > 80) {
      std::printf("%s\n", line.c_str());
      line = "               ";
    }
    line += " " + word;
  }
  std::printf("%s\n", line.c_str());
}

void print_line(const Result& result) {
  std::printf("%-7s %-57s %s\n", result.check->group, result.check->promise, result.verdict());
  if (result.holds) return;
  print_remark("seen:", result.seen);
  if (result.check->otherwise != nullptr) print_remark("then:", result.check->otherwise);
  std::fflush(stdout);
}

Json as_json(const Result& result) {
  Json line = {{"group", result.check->group},
               {"promise", result.check->promise},
               {"holds", result.holds},
               {"reliedOn", result.check->relied_on}};
  if (result.holds) return line;
  line["seen"] = result.seen;
  if (result.check->otherwise != nullptr) line["then"] = result.check->otherwise;
  return line;
}

void check_base_library(const Options& options) {
  using namespace basecheck;
  const Folder folder(options.folder);
  std::vector<std::span<const Check>> groups = {memory_checks(), trace_checks(), file_checks(), bit_checks()};
  if (!options.media.empty()) {
    media = std::filesystem::absolute(options.media);
    groups.push_back(reader_checks());
  }
  if (!options.as_json) std::printf("base library: %s\n\n", base_library().c_str());
  Json lines = Json::array();
  int hold = 0, differ = 0, others = 0;
  for (const auto& group : groups) {
    for (const Check& check : group) {
      if (!(std::string(check.group) + ' ' + check.promise).starts_with(options.group)) continue;
      std::fflush(stdout);  // not a second time by the child
      const Result result = run_apart(check, folder.path(), options.seconds);
      ++(result.holds ? hold : check.relied_on ? differ : others);
      options.as_json ? lines.push_back(as_json(result)) : print_line(result);
    }
  }
  if (options.as_json) {
    print_json({{"library", base_library()}, {"checks", lines}});
  } else {
    if (options.media.empty()) std::printf("%-7s not checked: name a recording with --media\n", "reader");
    std::printf("\n%d hold, %d differ, %d differ that are not relied on\n", hold, differ, others);
  }
  if (hold + differ + others == 0) throw CommandError("no check of this group");
  if (differ > 0) throw CommandError("the base library differs in what libqmxutil relies on");
}

}  // namespace

void add_basecheck_command(const Command& app) {
  const auto options = std::make_shared<Options>();
  const Command command = app.add("basecheck", "Hold the base library of this device to its contract");
  command.option("DIR", options->folder, "folder for the files of the checks").shows_default();
  command.option("--media", options->media, "a recording with user data, for the media file reader")
      .existing_file();
  command.option("--group", options->group, "only the checks whose lines begin with this, such as 'file'");
  command.option("--limit", options->seconds, "seconds after which a check has hung")
      .between(1, 3600)
      .shows_default();
  command.option("--json", options->as_json, "print JSON");
  command.footer(
      "Each check runs in a process of its own. Exit code 1: something differs that libqmxutil relies on.\n"
      "Example: qmxutil basecheck /data --media /data/trip.mp4");
  command.runs([options] { check_base_library(*options); });
}
