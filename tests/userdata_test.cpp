// Recordings: user data, metadata, directory search, GPS positions. Whole files: reader_test, failure_test.
#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>

#include "bytes.h"
#include "qmxutil_userdata.h"
#include "recording_base.h"
#include "replacement_tools.h"

namespace {

using namespace qmxtest;
using std::string;
using Texts = std::vector<string>;

class UserDataTest : public BaseTest {
 protected:
  TempDir dir_;
};

// A recording with a record at each of these times; a negative one cannot be read.
ReaderScript recording_with(const std::vector<int64_t>& times, uint32_t duration_ms) {
  ReaderScript script;
  script.info.userDataPresent = 1;
  script.info.userDataCount = static_cast<uint32_t>(times.size());
  script.info.durationMs = duration_ms;
  for (const int64_t time : times) {
    script.records.push_back({time < 0 ? -5 : 0, static_cast<uint64_t>(time), any_bytes(1024)});
  }
  return script;
}

// What the two read functions are to do, told record by record.
struct Model {
  std::vector<int64_t> times;
  uint32_t duration_ms;
  size_t asked = 0;
  size_t cur = 0;
  Texts traces = {};

  bool bad(size_t i) const { return times[i] < 0 || static_cast<uint32_t>(times[i]) > INT32_MAX; }
  std::optional<size_t> nothing(const std::string& trace) {
    traces.push_back(trace);
    return {};
  }
  std::optional<size_t> failed(size_t i) {
    return nothing("Reading " + std::to_string(i) + "th data Failed.\n");
  }
  std::optional<size_t> read(uint32_t second) {
    const uint32_t ms = second * 1000;
    const std::string text = std::to_string(static_cast<int>(second));
    if (ms > duration_ms) {
      return nothing(text + " second is over than total duration (" + std::to_string(duration_ms / 1000) +
                     ").\n");
    }
    for (size_t i = 0; i < times.size(); ++i) {
      if (i == asked && bad(asked++)) return failed(i);
      if (!bad(i) && static_cast<uint32_t>(times[i]) >= ms) return cur = i;
    }
    return nothing("No data matching with " + text + " sec.\n");
  }
  std::optional<size_t> read_next() {
    const size_t next = asked == 0 ? 0 : cur + 1;
    if (next == times.size()) return nothing("No more user data exist (end of data)\n");
    cur = next;
    asked = std::max(asked, next + 1);
    return bad(next) ? failed(next) : next;
  }
};

TEST_F(UserDataTest, RandomRecordingsAndCallSequencesAgreeWithAModel) {
  for (int round = 0; round < 1500; ++round) {
    std::vector<int64_t> times(1 + below(12));
    const bool sorted = chance(2);
    int64_t time = 0;
    for (int64_t& t : times) {
      time = sorted ? time + below(1500) : below(9000);
      static constexpr int64_t kOdd[] = {0, -1, INT32_MAX, 0x80000000, 0xFFFFFFFF, 0x100000000 + 3000};
      t = chance(8) ? kOdd[below(std::size(kOdd))] : time;
    }
    static constexpr uint32_t kDurations[] = {0, 999, 8000, 12345, 0xFFFFFFFF};
    const uint32_t duration = kDurations[below(std::size(kDurations))];
    const ReaderScript script = recording_with(times, duration);
    Model model{times, duration};
    recording().clear_traces();
    recording().clear_calls();
    recording().program_reader(script);
    const int32_t size = chance(2) ? 1024 : static_cast<int32_t>(1 + below(1024));
    UserDataHandle* const handle = QMXUtil_UserDataOpen("film", size);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(QMXUtil_UserDataCount(handle), static_cast<int>(times.size()));
    const GuardedBytes out(static_cast<size_t>(size));
    for (int call = 0; call < 30; ++call) {
      std::memset(out.data(), '-', out.size());
      const bool in_turn = chance(2);
      const uint32_t second = below(chance(20) ? UINT32_MAX : 14);
      const auto expected = in_turn ? model.read_next() : model.read(second);
      ASSERT_EQ(in_turn ? QMXUtil_UserDataReadNext(handle, out.data())
                        : QMXUtil_UserDataRead(handle, second, out.data()),
                expected.has_value())
          << "round " << round << " call " << call;
      ASSERT_EQ(text_of(out.data(), out.size()),
                expected ? script.records[*expected].data.substr(0, out.size()) : string(out.size(), '-'));
      ASSERT_EQ(handle->cur, static_cast<int>(model.cur));
      ASSERT_EQ(handle->loaded, static_cast<int>(model.asked));
    }
    EXPECT_EQ(recording().trace_texts(), model.traces);
    EXPECT_EQ(recording().calls_of("ReaderReadFrame"),
              Texts(model.asked, "ReaderReadFrame 3 " + std::to_string(size)));
    QMXUtil_UserDataClose(handle);
    ASSERT_EQ(recording().held(), 0);
  }
}

TEST_F(UserDataTest, OpeningReservesAllMemoryInStepsAndRefusesACountThatDoesNotFit) {
  const struct {
    uint32_t count;
    int32_t size;
    Texts blocks;  // the last one is refused by the base library
  } cases[] = {{512, 1024, {"524288 0", "8192 0"}},
               {513, 1024, {"1048576 0", "8208 0"}},
               {4193792, 1024, {"4294443008 0"}},
               {4193793, 1024, {}},
               {0x80000000, 2, {}},
               {268435455, 1, {"268435456 0"}},
               {268435456, 1, {}}};  // for its index
  for (const auto& c : cases) {
    ReaderScript script = recording_with({0}, 0);
    script.info.userDataCount = c.count;
    recording().program_reader(script);
    recording().clear_calls();
    recording().fail(Op::kMalloc, static_cast<int>(c.blocks.size()) + 1);
    EXPECT_EQ(QMXUtil_UserDataOpen("film", c.size), nullptr);
    Texts expected = {"Malloc 6736 0"};
    for (const string& block : c.blocks) expected.push_back("Malloc " + block);
    EXPECT_EQ(recording().calls_of("Malloc"), expected);
  }
  EXPECT_TRUE(recording().traces().empty());
}

// What was traced since this was last called, a line each, behind the names of the functions.
string traced() {
  string text;
  for (const auto& trace : recording().traces()) {
    EXPECT_EQ(trace.module + trace.file + std::to_string(trace.level),
              "qmxutiluserdataqmxutil_userdata.cpp1");
    const bool pointers = trace.format == "Invalid arguments (%x, %x) for user data\n";
    text += trace.function.substr(8) + ": " + (pointers ? "pointers\n" : trace.text);
  }
  recording().clear_traces();
  return text;
}

TEST_F(UserDataTest, ArgumentsOutOfRangeAreTraced) {
  UserDataHandle handle = {};
  char out = '-';
  EXPECT_EQ(QMXUtil_UserDataOpen(nullptr, 8), nullptr);
  for (const int32_t size : {1025, 0, INT32_MIN}) EXPECT_EQ(QMXUtil_UserDataOpen("film", size), nullptr);
  EXPECT_EQ(QMXUtil_UserDataRead(nullptr, 0, &out), 0);
  EXPECT_EQ(QMXUtil_UserDataRead(&handle, 0, nullptr), 0);
  EXPECT_EQ(QMXUtil_UserDataReadNext(nullptr, &out), 0);
  EXPECT_EQ(QMXUtil_UserDataReadNext(&handle, nullptr), 0);
  EXPECT_EQ(QMXUtil_UserDataCount(nullptr), 0);
  EXPECT_EQ(QMXUtil_MetaDataUpdate(nullptr, 1, 9), 0);
  EXPECT_EQ(QMXUtil_MetaDataRead(nullptr, 1), 0u);
  QMXUtil_UserDataClose(nullptr);
  EXPECT_TRUE(recording().calls().empty());
  EXPECT_EQ(traced(),
            "UserDataOpen: Invalid arguments ((null), 8) for user data\n"
            "UserDataOpen: Invalid arguments (film, 1025) for user data\n"
            "UserDataOpen: Invalid arguments (film, 0) for user data\n"
            "UserDataOpen: Invalid arguments (film, -2147483648) for user data\n"
            "UserDataRead: pointers\nUserDataRead: pointers\n"
            "UserDataReadNext: pointers\nUserDataReadNext: pointers\n"
            "UserDataCount: Invalid arguments (0) for user data\n"
            "MetaDataUpdate: NULL arguments!\nMetaDataRead: NULL arguments!\n");
}

// ---- Metadata field

ReaderScript recording_with_field(uint32_t container, uint32_t value, uint32_t offset) {
  ReaderScript script = recording_with({}, 0);
  script.info.containerType = container;
  script.info.metaPresent = 1;
  script.info.metaValue = value;
  script.info.metaOffset = offset;
  return script;
}

TEST_F(UserDataTest, AnUpdateChangesTheBytesOfTheFieldAndNoOther) {
  const struct {
    int32_t type;
    uint32_t container, value;
    string bytes;
  } cases[] = {{1, 1, 0x1FF, {"\0\0\0\xFF", 4}}, {1, 2, 0x1FF, "\xFF"},          {1, 0, 0x12345678, "\x78"},
               {2, 1, 0x1234, "\x34\x12"},       {0, 2, 0xABCD5678, "\x78\x56"}, {-1, 7, 0, {"\0\0", 2}}};
  string content(300, 'c');
  const string path = dir_.write("film", content);
  for (const auto& c : cases) {
    for (const uint32_t offset : {0u, 7u, 299u}) {
      recording().program_reader(recording_with_field(c.container, 0x89AB1234, offset));
      EXPECT_EQ(QMXUtil_MetaDataRead(path.c_str(), c.type), c.type == 1 ? 0x34u : 0x89AB1234u);
      recording().clear_calls();
      EXPECT_EQ(QMXUtil_MetaDataUpdate(path.c_str(), c.type, c.value), 1);
      EXPECT_EQ(read_file(path), content.replace(offset, c.bytes.size(), c.bytes));
      EXPECT_EQ(recording().calls(),
                (Texts{"ReaderOpen " + path, "ReaderGetInfo", "ReaderClose", "FileOpen " + path + " 0x8",
                       "FileSeek " + std::to_string(offset) + " 0",
                       "FileWrite " + std::to_string(c.bytes.size()), "FileClose"}));
    }
  }
  EXPECT_EQ(traced(), "");
}

TEST_F(UserDataTest, FilesWithoutWhatIsAskedForAreTraced) {  // what the base library refuses: failure_test
  ReaderScript script = recording_with_field(1, 5, 0);
  recording().program_reader(script);
  EXPECT_EQ(QMXUtil_UserDataOpen("f", 8), nullptr);
  script.info.metaPresent = 0;
  recording().program_reader(script);
  EXPECT_EQ(QMXUtil_MetaDataUpdate("f", 1, 9), 0);
  EXPECT_EQ(traced(),
            "UserDataOpen: There's no userdata in f file.\nMetaDataUpdate: There's no data in f file.\n");
}

// ---- Directory search

class FileSearchTest : public UserDataTest {
 protected:
  void SetUp() override { std::filesystem::current_path(dir_.path()); }
  void TearDown() override { std::filesystem::current_path("/"); }
  // The path found, or "-".
  static string search(const string& dir, const string& name) {
    char out[128] = "-";
    const int found = QMXUtil_FileSearch(dir.c_str(), name.c_str(), out, sizeof out);
    EXPECT_EQ(found, out[0] == '-' ? 0 : 1);
    EXPECT_EQ(QMXUtil_FileSearch(dir.c_str(), name.c_str(), nullptr, 0), found);
    return out;
  }
};

TEST_F(FileSearchTest, TheFirstSubdirectoryThatHasTheEntryIsFound) {
  std::filesystem::create_directories("a/deeper/only");
  std::filesystem::create_directories("b/wanted");
  dir_.write("wanted", "not in a subdirectory");
  EXPECT_EQ(search(dir_.path() + "/", "wanted"), dir_.file("b/wanted"));
  EXPECT_EQ(search(".", "only") + search("none", "wanted"), "--");
  EXPECT_EQ(QMXUtil_FileSearch(nullptr, "wanted", nullptr, 0) + QMXUtil_FileSearch(".", nullptr, nullptr, 0),
            0);
  char cut[9] = "--------";
  for (const int32_t size : {6, 0, -1}) EXPECT_EQ(QMXUtil_FileSearch(".", "wanted", cut, size), 1);
  EXPECT_EQ(string(cut, 8), string("./b/w\0--", 8));
}

TEST_F(FileSearchTest, NoNameRunsAnythingOrIsTakenForAnOption) {
  for (const string name : {"a b", "$(touch ran)", "`touch ran`", "a;touch ran", "a'b'c", "a\"b", "*", "a\\b",
                            "-delete", "(", "!", ",", ")", "-", "~", "#x"}) {
    std::filesystem::create_directories(name + "/sub/wanted");
    const string found = search(name, "wanted");
    EXPECT_TRUE(found == name + "/sub/wanted" || found == "./" + name + "/sub/wanted") << found;
  }
  EXPECT_FALSE(std::filesystem::exists("ran"));
}

TEST_F(FileSearchTest, EveryLineThatFindPrintsIsAPath) {
  const ReplacementTools tools;
  tools.tool("find", "echo \"$@\" >asked; echo; echo elsewhere; printf last");
  std::filesystem::create_directories("elsewhere/one");
  std::filesystem::create_directories("last/two");
  EXPECT_EQ(search("a  b", "one"), "elsewhere/one");
  EXPECT_EQ(search("a  b", "two"), "last/two");
  EXPECT_EQ(search("a  b", dir_.path().substr(1)), dir_.path()) << "an empty line";
  EXPECT_EQ(read_file("asked"), "a  b -maxdepth 1 -mindepth 1 -type d\n");
}

TEST_F(FileSearchTest, LimitsOfPathsCommandAndNumber) {
  const string s62 = "d/" + string(60, 's'), n64(64, 'n');
  std::filesystem::create_directories(s62 + "s/wanted");
  EXPECT_EQ(search("d", "wanted"), "-") << "63 bytes";
  std::filesystem::create_directories(s62 + "/" + n64);
  EXPECT_EQ(search("d", n64), s62 + "/" + n64);
  EXPECT_EQ(search("d", n64 + "n"), "-") << "its cut path is there";
  EXPECT_EQ(search(string(4000, '\''), "wanted"), "-");

  int found = 0;  // which ones is the directory's order
  for (char c = '0'; c < '0' + 40; ++c)
    std::filesystem::create_directories(string("many/") + c + "/only" + c);
  for (char c = '0'; c < '0' + 40; ++c) found += search("many", string("only") + c) != "-";
  EXPECT_EQ(found, 32);
}

// ---- GPS

int32_t saturated(double value) {
  if (std::isnan(value)) return 0;
  return static_cast<int32_t>(std::clamp(std::trunc(value), -2147483648.0, 2147483647.0));
}

// Each step in double precision, rounded to single: the same as single precision throughout.
void expect_degrees(float degrees, int32_t e5, float value, bool positive) {
  const auto whole = static_cast<float>(saturated(static_cast<float>(double{value} / 100)));
  const auto fraction = static_cast<float>(double{static_cast<float>(std::fmod(double{value}, 100.0))} / 60);
  const auto sum = static_cast<float>(double{whole} + double{fraction});
  const float expected = positive || sum == 0 ? sum : -sum;
  EXPECT_TRUE(std::bit_cast<uint32_t>(degrees) == std::bit_cast<uint32_t>(expected) ||
              (std::isnan(degrees) && std::isnan(expected)))
      << value;
  EXPECT_EQ(e5, saturated(static_cast<float>(double{expected} * 100000))) << value;
}

TEST(GpsTest, EveryStepIsInSinglePrecisionAndNoConversionIsUndefined) {
  using Limits = std::numeric_limits<float>;
  std::vector<float> values = {Limits::infinity(),
                               Limits::quiet_NaN(),
                               Limits::max(),
                               Limits::denorm_min(),
                               0.0F,
                               2147483.648F,
                               2.2e11F,
                               4530.0F};
  for (int i = 0; i < 100000; ++i) {
    values.push_back(static_cast<float>(below(180'000'000)) / 10000);
    values.push_back(std::bit_cast<float>(any_word()));
  }
  for (const float value : values) {
    const auto north = static_cast<uint8_t>(below(3)), east = static_cast<uint8_t>(below(3));
    const GpsMapPoint point = QMXUtil_GPSConvToMap(north, east, value, -value);
    expect_degrees(point.latitude, point.latitudeE5, value, north != 0);
    expect_degrees(point.longitude, point.longitudeE5, -value, east != 0);
  }
}

}  // namespace
