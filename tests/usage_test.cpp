// Usage monitors: /proc contents of our own making through replacement tools, real threads, real reports.
#include "internal/usage.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <filesystem>
#include <span>
#include <sstream>
#include <thread>

#include "qmxutil_usage.h"
#include "recording_base.h"
#include "replacement_tools.h"

namespace {

using qmxtest::Op;
using qmxtest::recording;
using Texts = std::vector<std::string>;

class UsageTest : public qmxtest::BaseTest {
 protected:
  const qmxtest::ReplacementTools tools_;
  const std::string& folder_ = tools_.dir().path();

  UsageCpuHandle* open_cpu(const std::string& count) {
    tools_.tool("wc", "printf -- '" + count + "'");
    return QMXUTIL_UsageCpuOpen();
  }
  UsageTaskHandle* open_tasks(const std::string& pids) {
    tools_.tool("pidof", "echo " + pids);
    return QMXUTIL_UsageTaskOpen("some");
  }
};

TEST_F(UsageTest, RefusedLinesAreTraced) {  // the fuzz target holds both line parsers against scanf()
  UsageCpuSample sample = {1, 2, 3, 4, 5};
  EXPECT_EQ(usage_cpu_parse("cpu 1 -2 3 -4", &sample), 0);
  EXPECT_EQ(recording().trace_texts(), Texts{"Error! (1, 3, -4)\n"});
  EXPECT_EQ(sample.total, 5);
  EXPECT_EQ(usage_cpu_parse("cpu 1 2 3 4", &sample), 1);
}

UsageCpuLoad load_between(const UsageCpuSample& prev, const UsageCpuSample& cur) {
  UsageCpuLoad load = {};
  usage_cpu_calc(&prev, &cur, &load.user, &load.system, &load.total);
  return load;
}

TEST_F(UsageTest, PercentagesTruncateTowardZero) {
  for (const auto& [user, nice, system, idle, expected] : {std::tuple{7, 0, 3, 20, std::array{23, 10, 34}},
                                                           {1, 1, 0, 1, {66, 0, 67}},
                                                           {0, 0, 0, 0, {0, 0, 0}},
                                                           {50, 0, 0, -10, {125, 0, 125}},
                                                           {1, 0, 0, -5, {0, 0, 0}},
                                                           {-1, 0, 4, 0, {-33, 133, 100}},
                                                           {-2, 0, -2, 7, {-66, -66, -132}}}) {
    const int64_t total = 400 + user + nice + system + idle;
    const UsageCpuLoad load =
        load_between({100, 100, 100, 100, 400}, {100 + user, 100 + nice, 100 + system, 100 + idle, total});
    EXPECT_EQ((std::array{load.user, load.system, load.total}), expected);
  }
}

TEST_F(UsageTest, CpuOpenCountsTheCores) {
  for (const auto& [count, cores] : {std::pair{"4\\n", 4}, {"  3 x", 3}, {"12\\n", 8}, {"1", 1}}) {
    UsageCpuHandle* const handle = open_cpu(count);
    ASSERT_NE(handle, nullptr) << count;
    EXPECT_EQ(handle->coreCount, cores);
    QMXUTIL_UsageCpuClose(handle);
  }
  QMXUTIL_UsageCpuClose(nullptr);
  Texts expected;
  for (const auto& [count, told] : {std::pair{"", 0}, {"x", 0}, {"-2", -2}, {"4294967295", -1}}) {
    EXPECT_EQ(open_cpu(count), nullptr);
    expected.push_back("corenum " + std::to_string(told) + " ??\n");
  }
  EXPECT_EQ(recording().trace_texts(), expected);
}

// What a monitor's slot must report, kept apart from the handle's own samples.
struct CpuModel {
  UsageCpuSample prev{0, 0, 0, 0, -1}, cur{};
  bool step(const Texts& lines, size_t index, const std::string& label, UsageCpuLoad& load) {
    if (index < lines.size() && !usage_cpu_parse(lines[index].substr(0, 127).c_str(), &cur)) return false;
    const bool first = prev.total == -1;
    if (first) std::snprintf(load.name, sizeof load.name, "%s", label.c_str());
    const UsageCpuLoad now = first ? UsageCpuLoad{} : load_between(prev, cur);
    std::tie(load.user, load.system, load.total) = std::tie(now.user, now.system, now.total);
    prev = cur;
    return true;
  }
};

TEST_F(UsageTest, CpuReadingsFollowTheModelOverRandomContents) {
  tools_.tool("cat", "[ \"$*\" = /proc/stat ] && exec /bin/cat '" + folder_ + "/stat' 2>/dev/null");
  for (const int cores : {1, 3, 8}) {
    UsageCpuHandle* const handle = open_cpu(std::to_string(cores));
    ASSERT_NE(handle, nullptr);
    std::vector<CpuModel> model(9);
    UsageCpuLoadMulti out, expected;
    std::memset(&out, 'x', sizeof out);
    expected = out;
    for (int reading = 0; reading < 40; ++reading) {
      Texts lines;
      std::string content;
      const size_t count = qmxtest::below(4) == 0 ? qmxtest::below(9) : 9;
      for (size_t i = 0; i < count; ++i) {
        std::string& line = lines.emplace_back("cpu");
        if (i != 0) line += std::to_string(i - 1);
        for (int column = 0; column < 10; ++column) {
          const int ticks = reading * 100 + static_cast<int>(qmxtest::below(200));
          line.append(" ").append(std::to_string(qmxtest::below(64) == 0 ? -1 : ticks));
        }
        if (qmxtest::below(16) == 0) line.append(300, ' ').append("1");
        content += line + "\n";
      }
      tools_.dir().write("stat", content);
      if (qmxtest::below(4) == 0) {
        ASSERT_EQ(QMXUTIL_UsageCpuGet(handle, &out.all), model[0].step(lines, 0, "CPU", expected.all));
      } else {
        const bool taken = model[0].step(lines, 0, "CPU*", expected.all);
        ASSERT_EQ(QMXUTIL_UsageCpuGetMulti(handle, &out), taken);
        if (taken) expected.coreCount = cores > 1 ? cores : 0;
        for (size_t i = 1; taken && cores > 1 && i <= static_cast<size_t>(cores); ++i) {
          model[i].step(lines, i, "CPU" + std::to_string(i - 1), expected.core[i - 1]);
        }
      }
      ASSERT_EQ(std::memcmp(&out, &expected, sizeof out), 0) << "reading " << reading << "\n" << content;
    }
    QMXUTIL_UsageCpuClose(handle);
  }
}

TEST_F(UsageTest, CpuReadingsOfThisMachineAndFailures) {
  UsageCpuHandle* const handle = QMXUTIL_UsageCpuOpen();
  ASSERT_NE(handle, nullptr);
  UsageCpuLoadMulti out;
  EXPECT_EQ(QMXUTIL_UsageCpuGetMulti(handle, &out), 1);
  EXPECT_GT(handle->prevAll.total, 0);
  EXPECT_EQ(QMXUTIL_UsageCpuGet(nullptr, &out.all) + QMXUTIL_UsageCpuGet(handle, nullptr) +
                QMXUTIL_UsageCpuGetMulti(nullptr, &out) + QMXUTIL_UsageCpuGetMulti(handle, nullptr),
            0);
  EXPECT_TRUE(recording().traces().empty());
  qmxtest::with_limit(RLIMIT_NOFILE, [&] {
    EXPECT_EQ(QMXUTIL_UsageCpuGet(handle, &out.all), 0);
    EXPECT_EQ(QMXUTIL_UsageCpuGetMulti(handle, &out), 0);
  });
  EXPECT_EQ(recording().trace_texts(), (Texts{"popen error (24)\n", "popen error (24)\n"}));
  QMXUTIL_UsageCpuClose(handle);
}

TEST_F(UsageTest, TaskOpenTakesTheFirstProcess) {
  UsageTaskHandle* const handle = open_tasks("123 45");
  ASSERT_NE(handle, nullptr);
  EXPECT_STREQ(handle->path, "/proc/123/task");
  QMXUTIL_UsageTaskClose(handle);
  tools_.tool("pidof", "printf '%s' \"$1\" >'" + folder_ + "/seen'");
  const std::string name = "`touch pwned`'" + std::string(200, 'n');
  EXPECT_EQ(QMXUTIL_UsageTaskOpen(name.c_str()), nullptr);
  EXPECT_EQ(qmxtest::read_file(folder_ + "/seen"), name.substr(0, 121));
  EXPECT_EQ(QMXUTIL_UsageTaskOpen(nullptr), nullptr);
  qmxtest::with_limit(RLIMIT_NOFILE, [] { EXPECT_EQ(QMXUTIL_UsageTaskOpen("some"), nullptr); });
  EXPECT_EQ(recording().trace_texts(), (Texts{"fetching pid from " + name + " failed!\n", "NULL argument!\n",
                                              "cmd (pidof some) failed!\n"}));
  EXPECT_EQ(recording().traces()[0].module, "qmxutil-usage");
}

struct Thread {
  std::string name;
  int user, system;
};

TEST_F(UsageTest, TaskReadingsWhileThreadsComeAndGo) {
  const std::string reset = "Reset by re-arrange of /proc/.../task\n", root = folder_ + "/task";
  const std::vector<Thread> many(150, {"(many)", 7, 7});
  const struct {
    std::vector<Thread> threads;
    std::string told;
    Texts loads;
  } readings[] = {
      {{{"(a)", 30, 0}, {"(b)", 10, 10}, {"(c)", 5, 5}, {"(c)", 50, 50}}, "", {}},
      {{{"(a)", 30, 0}, {"(b)", 10, 10}, {"(c)", 5, 5}, {"(c)", 50, 50}},
       "",
       {"(a) 0 0 0", "(b) 0 0 0", "(c) 0 0 0", "(c) 0 0 0"}},
      {{{"(a)", 60, 0}, {"(b)", 20, 20}, {"(c)", 5, 5}, {"(c)", 50, 50}},
       "",
       {"(a) 60 0 60", "(b) 20 20 40", "(c) 0 0 0", "(c) 0 0 0"}},
      {{{"(d)", 9, 9}, {"(b)", 20, 20}, {"(c)", 15, 5}, {"(c)", 50, 60}},  // one has ended, one is new
       "",
       {"(a) 60 0 60", "(b) 0 0 0", "(c) 0 20 20", "(c) 20 0 20"}},
      {{{"(b)", 19, 30}, {"(c)", 16, 5}}, reset, {}},  // other threads of the names
      {{{"(b)", 19, 30}, {"(e)", 1, 1}}, "", {}},
      {{{"(b)", 20, 29}}, reset, {}},
      {many, "", {}},
      {many, "", Texts(100, "(many) 0 0 0")},
  };
  UsageTaskHandle* const handle = open_tasks("1");
  std::snprintf(handle->path, sizeof handle->path, "%s", root.c_str());
  UsageTaskLoadList out;
  Texts loads;
  const auto get = [&] {
    recording().clear_traces();
    const int result = QMXUTIL_UsageTaskGet(handle, &out);
    loads.clear();
    for (const auto& [name, user, system, total] : std::span(out.task, static_cast<size_t>(out.count))) {
      std::ostringstream load;
      load << name << " " << user << " " << system << " " << total;
      loads.push_back(load.str());
    }
    std::sort(loads.begin(), loads.end());
    return result;
  };
  for (const auto& reading : readings) {
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root + "/1000");  // a thread that has just ended
    int id = 100;
    for (const auto& [name, user, system] : reading.threads) {
      const std::string thread = "task/" + std::to_string(++id), ticks = " R 1 1 1 0 -1 4 1 2 3 4 ";
      std::filesystem::create_directories(folder_ + "/" + thread + "/fd");
      tools_.dir().write(thread + "/fd/stat", "1 (deeper) R 1 1 1 1 1 1 1 1 1 1 99 99");
      tools_.dir().write(thread + "/stat", std::to_string(id) + " " + name + ticks + std::to_string(user) +
                                               " " + std::to_string(system) + " 0 0 20 0\n");
    }
    EXPECT_EQ(get(), reading.told.empty() ? 1 : 0);
    EXPECT_EQ(recording().trace_texts(), reading.told.empty() ? Texts{} : Texts{reading.told});
    EXPECT_EQ(loads, reading.loads);
  }
  std::filesystem::remove_all(root);  // the process has ended
  EXPECT_EQ(get(), 1);
  EXPECT_EQ(out.count, 100);
  EXPECT_EQ(recording().trace_texts(), Texts{"open (" + root + ") failed! (errno 2)\n"});
  EXPECT_EQ(QMXUTIL_UsageTaskGet(nullptr, &out) + QMXUTIL_UsageTaskGet(handle, nullptr), 0);
  QMXUTIL_UsageTaskClose(handle);
}

TEST_F(UsageTest, ABusyThreadHasTheCpuTime) {
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop) {
    }
  });
  pthread_setname_np(busy.native_handle(), "busy");
  UsageTaskHandle* const handle = open_tasks(std::to_string(getpid()));
  UsageTaskLoadList out = {};
  for (float share = 0; share < 50;) {  // until its ticks have shown
    ASSERT_EQ(QMXUTIL_UsageTaskGet(handle, &out), 1);
    for (const UsageTaskLoad& load : std::span(out.task, static_cast<size_t>(out.count)))
      if (std::string(load.name) == "(busy)") share = load.total;
  }
  stop = true;
  busy.join();
  QMXUTIL_UsageTaskClose(handle);
}

// ---- Memory accounting ----

// What the report on a memory use in these lines is.
std::string report_of(const std::string& types) {
  return "\n-------------------------------\n Memory Usage\n - - - - - - - - - - - - - - - \n" + types +
         "-------------------------------\n\n";
}
const std::string kSeparator = " - - - - - - - - - - - - - - - \n";

TEST_F(UsageTest, MemoryReportsListTypesAndItems) {
  const std::string path = folder_ + "/report";
  EXPECT_EQ(QMXUTIL_UsageMemAdd("early", "x", 1 << 20), 1) << "closed: nothing is done";
  EXPECT_EQ(QMXUTIL_UsageMemPrint(1), 1);
  QMXUTIL_UsageMemClose();
  ASSERT_EQ(QMXUTIL_UsageMemOpen(path.c_str()), 1);
  ASSERT_EQ(QMXUTIL_UsageMemOpen("/never/used"), 1);
  QMXUTIL_UsageMemClose();
  EXPECT_EQ(QMXUTIL_UsageMemAdd("video", "frame", 12582912), 1);
  EXPECT_EQ(QMXUTIL_UsageMemAdd("none", "given back", -1), 1);
  EXPECT_EQ(QMXUTIL_UsageMemAdd("video", "bitstream", 1572864), 1);
  EXPECT_EQ(QMXUTIL_UsageMemAdd("a", nullptr, 1 << 20), 1);
  EXPECT_EQ(QMXUTIL_UsageMemAdd("fourth", "x", 1), 0);
  EXPECT_EQ(QMXUTIL_UsageMemAdd(nullptr, "x", 1), 0);
  EXPECT_EQ(QMXUTIL_UsageMemAdd("video", "", -5242), 1) << "types in use still take items";
  const std::string report = report_of(
      "    video\n    + frame     :  12.00 MB\n    + bitstream :   1.50 MB\n"
      "    +           :  -0.00 MB\n    = total     :  13.50 MB (total)\n" +
      kSeparator + "    a\n    +  :   1.00 MB\n    = total :   1.00 MB (total)\n" + kSeparator);
  EXPECT_EQ(QMXUTIL_UsageMemPrint(0) + QMXUTIL_UsageMemPrint(0), 2);
  EXPECT_EQ(qmxtest::read_file(path), report + report);
  testing::internal::CaptureStdout();
  EXPECT_EQ(QMXUTIL_UsageMemPrint(1), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), report);
  QMXUTIL_UsageMemClose();

  ASSERT_EQ(QMXUTIL_UsageMemOpen(path.c_str()), 1);
  const std::string name(100, 'n');  // long names cut their lines
  EXPECT_EQ(QMXUTIL_UsageMemAdd(name.c_str(), name.c_str(), INT_MAX), 1);
  EXPECT_EQ(QMXUTIL_UsageMemPrint(0), 1);
  QMXUTIL_UsageMemClose();
  EXPECT_TRUE(qmxtest::read_file(path).ends_with(report_of("    " + name.substr(0, 59) + "    + " +
                                                           name.substr(0, 57) + "    = total" +
                                                           std::string(52, ' ') + kSeparator)));
  EXPECT_EQ(recording().calls_of("FileOpen"), Texts(2, "FileOpen " + path + " 0xF0000005"));
  recording().fail(Op::kFileOpen);
  EXPECT_EQ(QMXUTIL_UsageMemOpen(nullptr), 0);
  EXPECT_EQ(recording().trace_texts(), (Texts{"Adding new type failed! So many types exist in mem list!\n",
                                              "Open (/tmp/memstat) failed!\n"}));
}

TEST_F(UsageTest, ThreadsAddSideBySide) {
  ASSERT_EQ(QMXUTIL_UsageMemOpen((folder_ + "/report").c_str()), 1);
  std::vector<std::thread> threads;
  for (const char* type : {"a", "b", "c", "c"}) {
    threads.emplace_back([type] {
      for (int i = 0; i < 500; ++i) {
        QMXUTIL_UsageMemOpen(nullptr);
        EXPECT_EQ(QMXUTIL_UsageMemAdd(type, "item", 1 << 20), 1);
        QMXUTIL_UsageMemClose();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  QMXUTIL_UsageMemPrint(0);
  QMXUTIL_UsageMemClose();
  const std::string report = qmxtest::read_file(folder_ + "/report");
  for (const char* total : {" 500.00 MB (total)", " 1000.00 MB (total)"}) {
    EXPECT_NE(report.find(total), std::string::npos) << report.substr(report.size() - 200);
  }
}

}  // namespace
