// Recordings: user data, metadata, directory search, GPS positions.
#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>
#include <random>

#include "qmxutil_userdata.h"
#include "recording_base.h"
#include "recordings.h"
#include "replacement_tools.h"

namespace {

using qmxtest::GuardedBytes;
using qmxtest::Op;
using qmxtest::ReaderScript;
using qmxtest::recording;
using qmxtest::TempDir;
using Texts = std::vector<std::string>;

class UserDataTest : public qmxtest::BaseTest {};

// A recording with a record at each of these times; a negative one cannot be read.
ReaderScript recording_with(const std::vector<int64_t>& times, uint32_t duration_ms) {
  ReaderScript script;
  script.info.userDataPresent = 1;
  script.info.userDataCount = static_cast<uint32_t>(times.size());
  script.info.durationMs = duration_ms;
  for (size_t i = 0; i < times.size(); ++i) {
    script.records.push_back({times[i] < 0 ? -5 : 0, static_cast<uint64_t>(times[i]),
                              "record " + std::to_string(i) + std::string(2000, 'x')});
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
  recording().use_guard_pages(false);
  std::mt19937 random(81);
  const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  for (int round = 0; round < 4000; ++round) {
    std::vector<int64_t> times(1 + below(12));
    const bool sorted = below(2) == 0;
    int64_t time = 0;
    for (int64_t& t : times) {
      time = sorted ? time + below(1500) : below(9000);
      static constexpr int64_t kOdd[] = {0, -1, INT32_MAX, 0x80000000, 0xFFFFFFFF, 0x100000000 + 3000};
      t = below(8) == 0 ? kOdd[below(std::size(kOdd))] : time;
    }
    static constexpr uint32_t kDurations[] = {0, 999, 8000, 12345, 0xFFFFFFFF};
    const uint32_t duration = kDurations[below(std::size(kDurations))];
    const ReaderScript script = recording_with(times, duration);
    Model model{times, duration};
    recording().clear_traces();
    recording().clear_calls();
    recording().program_reader(script);
    const int32_t size = below(2) == 0 ? 1024 : static_cast<int32_t>(1 + below(1024));
    UserDataHandle* const handle = QMXUtil_UserDataOpen("film", size);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(QMXUtil_UserDataCount(handle), static_cast<int>(times.size()));
    const GuardedBytes out(static_cast<size_t>(size));
    for (int call = 0; call < 30; ++call) {
      std::memset(out.data(), '-', out.size());
      const bool in_turn = below(2) == 0;
      const uint32_t second = below(below(20) == 0 ? UINT32_MAX : 14);
      const auto expected = in_turn ? model.read_next() : model.read(second);
      const int result = in_turn ? QMXUtil_UserDataReadNext(handle, out.data())
                                 : QMXUtil_UserDataRead(handle, second, out.data());
      ASSERT_EQ(result, expected ? 1 : 0) << "round " << round << " call " << call;
      ASSERT_EQ(
          std::string(out.text(), out.size()),
          expected ? script.records[*expected].data.substr(0, out.size()) : std::string(out.size(), '-'));
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
  recording().program_reader(recording_with({0, 1000, 2000}, 3000));
  QMXUtil_UserDataClose(QMXUtil_UserDataOpen("film", 1024));
  QMXUtil_UserDataClose(nullptr);
  EXPECT_EQ(recording().calls(),
            (Texts{"Malloc 6736 0", "ReaderOpen film", "ReaderGetInfo", "Malloc 524288 0", "Malloc 48 0",
                   "ReaderClose", "Free", "Free", "Free"}));
  const struct {
    uint32_t count;
    int32_t size;
    const char* block;  // null: refused before it is asked for
  } cases[] = {{512, 1024, "524288"},         {513, 1024, "1048576"},   {524289, 1, "1048576"},
               {4193792, 1024, "4294443008"}, {4193793, 1024, nullptr}, {0x80000000, 2, nullptr},
               {268435455, 1, "268435456"},   {268435456, 1, nullptr}};  // the last for its index
  for (const auto& c : cases) {
    ReaderScript script = recording_with({0}, 0);
    script.info.userDataCount = c.count;
    recording().program_reader(script);
    recording().clear_calls();
    recording().fail(Op::kMalloc, 2);
    EXPECT_EQ(QMXUtil_UserDataOpen("film", c.size), nullptr);
    Texts expected = {"Malloc 6736 0"};
    if (c.block != nullptr) expected.push_back(std::string("Malloc ") + c.block + " 0");
    EXPECT_EQ(recording().calls_of("Malloc"), expected);
  }
  EXPECT_TRUE(recording().traces().empty());
}

TEST_F(UserDataTest, ArgumentsOutOfRangeAreTracedUnderTheFunctionCalled) {
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
  EXPECT_TRUE(recording().calls().empty());
  Texts seen;
  for (const auto& trace : recording().traces()) {
    EXPECT_EQ(trace.module + " " + trace.file, "qmxutiluserdata qmxutil_userdata.cpp");
    EXPECT_EQ(trace.level, 1);
    const bool pointers = trace.format == "Invalid arguments (%x, %x) for user data\n";
    seen.push_back(trace.function.substr(8) + (pointers ? "" : " " + trace.text));
  }
  EXPECT_EQ(seen, (Texts{"UserDataOpen Invalid arguments ((null), 8) for user data\n",
                         "UserDataOpen Invalid arguments (film, 1025) for user data\n",
                         "UserDataOpen Invalid arguments (film, 0) for user data\n",
                         "UserDataOpen Invalid arguments (film, -2147483648) for user data\n", "UserDataRead",
                         "UserDataRead", "UserDataReadNext", "UserDataReadNext",
                         "UserDataCount Invalid arguments (0) for user data\n",
                         "MetaDataUpdate NULL arguments!\n", "MetaDataRead NULL arguments!\n"}));
}

// ---- Metadata field

class MetaDataTest : public qmxtest::BaseTest {
 protected:
  void program(uint32_t container, uint32_t value, uint32_t offset, uint32_t present = 1,
               uint32_t count = 0) {
    ReaderScript script;
    script.info.containerType = container;
    script.info.metaPresent = script.info.userDataPresent = present;
    script.info.userDataCount = count;
    script.info.metaValue = value;
    script.info.metaOffset = offset;
    recording().program_reader(script);
  }
  TempDir dir_;
};

TEST_F(MetaDataTest, AnUpdateChangesTheBytesOfTheFieldAndNoOther) {
  const struct {
    int32_t type;
    uint32_t container, value;
    std::string bytes;
  } cases[] = {{1, 1, 0x1FF, {"\0\0\0\xFF", 4}}, {1, 2, 0x1FF, "\xFF"},          {1, 0, 0x12345678, "\x78"},
               {2, 1, 0x1234, "\x34\x12"},       {0, 2, 0xABCD5678, "\x78\x56"}, {-1, 7, 0, {"\0\0", 2}}};
  const std::string content(300, 'c');
  for (const auto& c : cases) {
    for (const uint32_t offset : {0u, 7u, 299u}) {
      const std::string path = dir_.write("film", content);
      program(c.container, 0x89AB1234, offset);
      EXPECT_EQ(QMXUtil_MetaDataRead(path.c_str(), c.type), c.type == 1 ? 0x34u : 0x89AB1234u);
      recording().clear_calls();
      EXPECT_EQ(QMXUtil_MetaDataUpdate(path.c_str(), c.type, c.value), 1);
      std::string expected = content;
      EXPECT_EQ(qmxtest::read_file(path), expected.replace(offset, c.bytes.size(), c.bytes));
      EXPECT_EQ(recording().calls(),
                (Texts{"ReaderOpen " + path, "ReaderGetInfo", "ReaderClose", "FileOpen " + path + " 0x8",
                       "FileSeek " + std::to_string(offset) + " 0",
                       "FileWrite " + std::to_string(c.bytes.size()), "FileClose"}));
    }
  }
  EXPECT_TRUE(recording().traces().empty());
}

TEST_F(MetaDataTest, WhatStandsInTheWayIsTracedUnderTheFunctionCalled) {
  const std::string path = dir_.write("film", "content"), no_data = "There's no data in " + path + " file.\n",
                    no_records = "There's no userdata in " + path + " file.\n",
                    not_opened = "QMXReaderOpen ( " + path + " ) failed\n";
  const struct {
    Op op;
    int nth;  // 0: none
    uint32_t present, count;
    std::string update, read, open;
  } cases[] = {{Op::kReaderOpen, 1, 1, 1, not_opened, not_opened, not_opened},
               {Op::kReaderGetInfo, 1, 1, 1, no_data, no_data, no_records},
               {Op::kReaderOpen, 0, 0, 1, no_data, no_data, no_records},
               {Op::kFileOpen, 1, 1, 0, "open (" + path + ") failed!\n", "", no_records},
               {Op::kFileSeek, 1, 1, 0, "seek (" + path + ", -2) failed!\n", "", no_records}};
  for (const auto& c : cases) {
    program(1, 5, 0xFFFFFFFE, c.present, c.count);
    const auto traced = [&](const auto& call) {
      recording().clear_traces();
      recording().fail(c.op, c.nth);
      call();
      recording().stop_failing();
      const auto traces = recording().traces();
      return traces.empty() ? ": " : traces[0].function + ": " + traces[0].text;
    };
    EXPECT_EQ(traced([&] { EXPECT_EQ(QMXUtil_MetaDataUpdate(path.c_str(), 1, 9), 0); }),
              "QMXUtil_MetaDataUpdate: " + c.update);
    EXPECT_EQ(traced([&] { EXPECT_EQ(QMXUtil_MetaDataRead(path.c_str(), 1), c.read.empty() ? 5u : 0u); }),
              (c.read.empty() ? ": " : "QMXUtil_MetaDataRead: ") + c.read);
    EXPECT_EQ(traced([&] { EXPECT_EQ(QMXUtil_UserDataOpen(path.c_str(), 8), nullptr); }),
              "QMXUtil_UserDataOpen: " + c.open);
    EXPECT_EQ(qmxtest::read_file(path), "content");
  }
}

// ---- Whole recordings, through the stand-in's reader

TEST_F(MetaDataTest, RecordingsOfBothKindsGiveTheirRecordsAndTakeANewValueInPlace) {
  qmxtest::Mp4 mp4;
  qmxtest::Avi avi;
  mp4.records = avi.records = {"first", "second", "third"};
  mp4.deltas = {1000, 1000, 1000};
  mp4.chunk_lengths = {2, 1};
  mp4.duration = 3000;
  avi.frames = 75;  // of 40 ms
  mp4.metadata = {"\0\0\0\7", 4};
  avi.metadata = "\7";
  const std::string path = dir_.file("film");
  for (const auto& file : {mp4.file(), avi.file()}) {
    file.write(path);
    UserDataHandle* const handle = QMXUtil_UserDataOpen(path.c_str(), 8);
    ASSERT_NE(handle, nullptr);
    char out[8];
    EXPECT_EQ(QMXUtil_UserDataRead(handle, 1, out), 1);
    EXPECT_STREQ(out, "second");
    EXPECT_EQ(QMXUtil_UserDataReadNext(handle, out), 1);
    EXPECT_STREQ(out, "third");
    EXPECT_EQ(QMXUtil_UserDataRead(handle, 3, out), 0);
    QMXUtil_UserDataClose(handle);
    std::string expected = qmxtest::read_file(path);
    expected[expected.find('\7', expected.find("qmxm"))] = '\x20';
    EXPECT_EQ(QMXUtil_MetaDataRead(path.c_str(), 1), 7u);
    EXPECT_EQ(QMXUtil_MetaDataUpdate(path.c_str(), 1, 0x120), 1);
    EXPECT_EQ(QMXUtil_MetaDataRead(path.c_str(), 1), 0x20u);
    EXPECT_EQ(qmxtest::read_file(path), expected);
  }
}

// ---- Directory search

class FileSearchTest : public ::testing::Test {
 protected:
  void make(const std::string& path) { std::filesystem::create_directories(dir_.file(path)); }
  // The path found, or "-".
  std::string search(const std::string& dir, const std::string& name) {
    char out[128] = "-";
    const int found = QMXUtil_FileSearch(dir.c_str(), name.c_str(), out, sizeof out);
    EXPECT_EQ(found, out[0] == '-' ? 0 : 1);
    EXPECT_EQ(QMXUtil_FileSearch(dir.c_str(), name.c_str(), nullptr, 0), found);
    return out;
  }
  void SetUp() override { std::filesystem::current_path(dir_.path()); }
  void TearDown() override { std::filesystem::current_path("/"); }
  TempDir dir_;
};

TEST_F(FileSearchTest, TheFirstSubdirectoryThatHasTheEntryIsFound) {
  make("a/deeper/only");
  make("b/wanted");
  dir_.write("wanted", "not in a subdirectory");
  EXPECT_EQ(search(dir_.path() + "/", "wanted"), dir_.file("b/wanted"));
  EXPECT_EQ(search(".", "wanted"), "./b/wanted");
  EXPECT_EQ(search(".", "only"), "-");
  EXPECT_EQ(search("none", "wanted"), "-");
  EXPECT_EQ(search("", "wanted"), "-");
  EXPECT_EQ(QMXUtil_FileSearch(nullptr, "wanted", nullptr, 0), 0);
  EXPECT_EQ(QMXUtil_FileSearch(".", nullptr, nullptr, 0), 0);
  char cut[9] = "--------";
  for (const int32_t size : {6, 0, -1}) EXPECT_EQ(QMXUtil_FileSearch(".", "wanted", cut, size), 1);
  EXPECT_EQ(std::string(cut, 8), std::string("./b/w\0--", 8));
}

TEST_F(FileSearchTest, NoNameRunsAnythingOrIsTakenForAnOption) {
  for (const std::string name : {"a b", "$(touch ran)", "`touch ran`", "a;touch ran", "a'b'c", "a\"b", "*",
                                 "a\\b", "-delete", "(", "!", ",", ")", "-", "~", "#x"}) {
    make(name + "/sub/wanted");
    const std::string found = search(name, "wanted");
    EXPECT_TRUE(found == name + "/sub/wanted" || found == "./" + name + "/sub/wanted") << found;
  }
  EXPECT_FALSE(std::filesystem::exists("ran"));
}

TEST_F(FileSearchTest, EveryLineThatFindPrintsIsAPath) {
  const qmxtest::ReplacementTools tools;
  tools.tool("find", "echo \"$@\" >asked; echo; echo elsewhere; printf last");
  make("elsewhere/one");
  make("last/two");
  EXPECT_EQ(search("a  b", "one"), "elsewhere/one");
  EXPECT_EQ(search("a  b", "two"), "last/two");
  EXPECT_EQ(search("a  b", dir_.path().substr(1)), dir_.path()) << "an empty line";
  EXPECT_EQ(qmxtest::read_file("asked"), "a  b -maxdepth 1 -mindepth 1 -type d\n");
}

TEST_F(FileSearchTest, LimitsOfPathsCommandAndNumber) {
  const std::string s62 = "d/" + std::string(60, 's'), n64(64, 'n');
  make(s62 + "s/wanted");
  EXPECT_EQ(search("d", "wanted"), "-") << "63 bytes";
  make(s62 + "/wanted");
  EXPECT_EQ(search("d", "wanted"), s62 + "/wanted");
  make(s62 + "/" + n64);
  EXPECT_EQ(search("d", n64), s62 + "/" + n64);
  EXPECT_EQ(search("d", n64 + "n"), "-") << "its cut path is there";
  EXPECT_EQ(search(std::string(4000, '\''), "wanted"), "-");

  for (int i = 0; i < 40; ++i) make("many/" + std::to_string(i) + "/only" + std::to_string(i));
  int found = 0;  // which ones is the directory's order
  for (int i = 0; i < 40; ++i) found += search("many", "only" + std::to_string(i)) != "-";
  EXPECT_EQ(found, 32);
}

// ---- GPS

int32_t saturated(double value) {
  if (std::isnan(value)) return 0;
  return static_cast<int32_t>(std::clamp(std::trunc(value), -2147483648.0, 2147483647.0));
}

// Each step in double precision, rounded to single: the same as single precision throughout.
float model_degrees(float value, bool positive) {
  const auto degrees = static_cast<float>(saturated(static_cast<float>(double{value} / 100)));
  const auto minutes = static_cast<float>(std::fmod(double{value}, 100.0));
  const auto fraction = static_cast<float>(double{minutes} / 60);
  const auto sum = static_cast<float>(double{degrees} + double{fraction});
  return positive || sum == 0 ? sum : -sum;
}

void expect_degrees(float degrees, int32_t e5, float value, bool positive) {
  const float expected = model_degrees(value, positive);
  EXPECT_TRUE(std::bit_cast<uint32_t>(degrees) == std::bit_cast<uint32_t>(expected) ||
              (std::isnan(degrees) && std::isnan(expected)))
      << value;
  EXPECT_EQ(e5, saturated(static_cast<float>(double{expected} * 100000))) << value;
}

void expect_point(uint8_t north, uint8_t east, float latitude, float longitude) {
  const GpsMapPoint point = QMXUtil_GPSConvToMap(north, east, latitude, longitude);
  expect_degrees(point.latitude, point.latitudeE5, latitude, north != 0);
  expect_degrees(point.longitude, point.longitudeE5, longitude, east != 0);
}

TEST(GpsTest, EveryStepIsInSinglePrecisionAndNoConversionIsUndefined) {
  const GpsMapPoint point = QMXUtil_GPSConvToMap(0, 7, 4530.0F, 100.0F);
  EXPECT_EQ(point.latitude, -45.5F);
  EXPECT_EQ(point.longitudeE5, 100000);
  using Limits = std::numeric_limits<float>;
  for (const float value : {Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(), Limits::max(),
                            Limits::lowest(), Limits::denorm_min(), 0.0F, -0.0F, 2147483.648F, 2.2e11F}) {
    for (const uint8_t flag : {uint8_t{0}, uint8_t{1}, uint8_t{255}}) expect_point(flag, flag, value, -value);
  }
  std::mt19937 random(83);
  std::uniform_real_distribution<float> sentence(0.0F, 18000.0F);
  const auto any = [&] { return std::bit_cast<float>(static_cast<uint32_t>(random())); };
  for (int i = 0; i < 100000; ++i) {
    const auto flag = static_cast<uint8_t>(i & 1);
    expect_point(flag, i % 3 == 0, sentence(random), sentence(random));
    expect_point(flag, i % 3 == 0, any(), any());
  }
}

}  // namespace
