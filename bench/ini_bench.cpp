// INI files: look-ups and a commit beside GLib's key files, and inih where it can do the work (it only
// reads).
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench_rows.h"
#include "qmxutil_ini.h"

#ifdef HAVE_GLIB
#include <glib.h>
#endif
#ifdef HAVE_INIH
#include <ini.h>
#endif

namespace {

constexpr size_t kLookUps = 20;

struct Entry {
  std::string section;
  std::string key;
};

// A configuration as a recorder has it: sections of sixteen settings, a comment in each, values of 1 to 24
// characters. On the memory file system, there for as long as the program runs.
class Sample {
 public:
  explicit Sample(size_t size) : path_("/dev/shm/qmxutil_bench.XXXXXX") {
    const int descriptor = mkstemp(path_.data());
    if (descriptor < 0) std::abort();
    close(descriptor);
    static constexpr const char* kNames[] = {"exposure",        "brightness",  "gain",        "volume",
                                             "network_timeout", "record.path", "motion_area", "bitrate"};
    uint32_t random = 1;
    const auto next = [&random](uint32_t below) {
      random = random * 1103515245 + 12345;
      return (random >> 16) % below;
    };
    std::string text;
    std::vector<Entry> entries;
    while (text.size() < size) {
      const std::string section = "unit" + std::to_string(entries.size() / 16);
      if (entries.size() % 16 == 0) text.append("\n[").append(section).append("]\n# settings of one unit\n");
      entries.push_back({section, std::string(kNames[next(8)]) + '_' + std::to_string(entries.size())});
      text += entries.back().key + " = ";
      for (uint32_t length = 1 + next(24); length > 0; --length) text += static_cast<char>('a' + next(26));
      text += '\n';
    }
    std::ofstream(path_) << text;
    for (size_t i = 0; i < kLookUps; ++i) wanted_[i] = entries[entries.size() * (2 * i + 1) / (2 * kLookUps)];
  }
  ~Sample() { std::filesystem::remove(path_); }
  Sample(const Sample&) = delete;
  Sample& operator=(const Sample&) = delete;

  const char* path() const { return path_.c_str(); }
  const std::array<Entry, kLookUps>& wanted() const { return wanted_; }  // evenly spread over the file
  const Entry& middle() const { return wanted_[kLookUps / 2]; }

 private:
  std::string path_;
  std::array<Entry, kLookUps> wanted_;
};

void require(bool done) {
  if (!done) std::abort();
}

const char* toggled(int round) { return round % 2 == 0 ? "first" : "second value"; }

void look_up(benchmark::State& state, const Sample& sample) {
  char value[256];
  for (auto _ : state) {
    INIHandle* const handle = QMXUtil_INIOpen(sample.path());
    for (const Entry& entry : sample.wanted()) {
      require(QMXUtil_INISearch(handle, entry.key.c_str(), value) == 1);
      benchmark::DoNotOptimize(value);
    }
    QMXUtil_INIClose(handle);
  }
}

void commit(benchmark::State& state, const Sample& sample) {
  const INIAttr attr = {1, 0, 1};
  int round = 0;
  for (auto _ : state) {
    INIHandle* const handle = QMXUtil_INIOpenEx(sample.path(), &attr);
    require(QMXUtil_INIWrite(handle, sample.middle().key.c_str(), toggled(round++)) == 1);
    QMXUtil_INIClose(handle);
  }
}

#ifdef HAVE_GLIB
void look_up_glib(benchmark::State& state, const Sample& sample) {
  for (auto _ : state) {
    GKeyFile* const file = g_key_file_new();
    require(g_key_file_load_from_file(file, sample.path(), G_KEY_FILE_NONE, nullptr));
    for (const Entry& entry : sample.wanted()) {
      char* const value = g_key_file_get_string(file, entry.section.c_str(), entry.key.c_str(), nullptr);
      require(value != nullptr);
      g_free(value);
    }
    g_key_file_free(file);
  }
}

void commit_glib(benchmark::State& state, const Sample& sample) {
  const auto flags = static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS);
  int round = 0;
  for (auto _ : state) {
    GKeyFile* const file = g_key_file_new();
    require(g_key_file_load_from_file(file, sample.path(), flags, nullptr));
    g_key_file_set_string(file, sample.middle().section.c_str(), sample.middle().key.c_str(),
                          toggled(round++));
    require(g_key_file_save_to_file(file, sample.path(), nullptr));
    g_key_file_free(file);
  }
}
#endif

#ifdef HAVE_INIH
// inih reads the file once and hands over every pair; the handler keeps those that are wanted.
struct Wanted {
  const Sample* sample;
  std::array<char[256], kLookUps> values;
  size_t found;
};

int keep_if_wanted(void* user, const char*, const char* key, const char* value) {
  auto& wanted = *static_cast<Wanted*>(user);
  for (size_t i = 0; i < kLookUps; ++i) {
    if (wanted.sample->wanted()[i].key == key) {
      std::strncpy(wanted.values[i], value, sizeof wanted.values[i] - 1);
      ++wanted.found;
      break;
    }
  }
  return 1;
}

void look_up_inih(benchmark::State& state, const Sample& sample) {
  Wanted wanted = {};
  wanted.sample = &sample;
  for (auto _ : state) {
    wanted.found = 0;
    require(ini_parse(sample.path(), keep_if_wanted, &wanted) == 0 && wanted.found == kLookUps);
    benchmark::DoNotOptimize(wanted.values);
  }
}
#endif

// Each on a file of its own: what a commit has changed is not what another row reads.
template <size_t size, auto function>
void on_sample(benchmark::State& state) {
  static const Sample sample(size);
  function(state, sample);
}

template <auto ours, auto theirs>
void add(const std::string& work, const std::string& peer, double small_bar, double large_bar) {
  constexpr size_t kSmall = 4 * 1024, kLarge = 200 * 1024;
  bench::add_row(work + ", 4 KiB INI", peer, small_bar, on_sample<kSmall, ours>, on_sample<kSmall, theirs>);
  bench::add_row(work + ", 200 KiB INI", peer, large_bar, on_sample<kLarge, ours>, on_sample<kLarge, theirs>);
}

const bench::Rows rows([] {
#ifdef HAVE_GLIB
  add<look_up, look_up_glib>("open, 20 look-ups, close", "GLib key file", 0.4, 0.4);
  add<commit, commit_glib>("change a value and commit", "GLib key file", 0.5, 0.4);
#endif
#ifdef HAVE_INIH
  add<look_up, look_up_inih>("open, 20 look-ups, close", "inih", 0.4, 0.4);
#endif
});

}  // namespace
