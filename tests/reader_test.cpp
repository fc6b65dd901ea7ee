// The stand-in's media file reader on files as recorders write them, and on files that lie.
#include <sys/mman.h>
#include <sys/stat.h>

#include <functional>

#include "recording_base.h"
#include "recordings.h"

namespace {

using namespace qmxtest;
using std::string;

struct Reading {
  bool opened = false;
  QMXReaderInfo info = {};
  std::vector<std::pair<uint64_t, string>> records;  // until the reader gives no more
  int failed = 0;                                    // of one more than the information promises
};

Reading read_all(const string& path) {
  Reading reading;
  QMXReaderParam param = {};
  param.path = path.c_str();
  QMXReader* reader;
  reading.opened = QMXReaderOpen(&reader, &param) >= 0;
  if (!reading.opened) return reading;
  EXPECT_GE(QMXReaderGetInfo(reader, &reading.info), 0);
  for (uint32_t i = 0; i <= std::min(reading.info.userDataCount, 10000u); ++i) {
    const GuardedBytes room(string(40, '-'));
    QMXReaderFrame frame = {};
    frame.data = room.data();
    frame.capacity = room.size();
    frame.kind = QMX_READER_KIND_USER_DATA;
    if (QMXReaderReadFrame(reader, &frame) >= 0) {
      reading.records.emplace_back(frame.timeMs, string(room.text(), room.size()));
    } else {
      ++reading.failed;
    }
  }
  QMXReaderClose(reader);
  return reading;
}

std::vector<string> some_records(size_t count, size_t longest) {
  std::vector<string> records(count);
  for (string& record : records) record = any_bytes(below(longest + 1));
  return records;
}

class ReaderTest : public BaseTest {
 protected:
  Reading read(const SparseFile& file) const {
    file.write(path_);
    return read_all(path_);
  }
  // What was written is what is read; one request too many fails.
  void expect_records(const SparseFile& file, const std::vector<string>& records,
                      const std::function<uint64_t(size_t)>& time_ms, uint32_t container, uint64_t duration) {
    const Reading reading = read(file);
    std::vector<std::pair<uint64_t, string>> expected;
    for (const string& record : records) {
      expected.emplace_back(time_ms(expected.size()), (record + string(40, '-')).substr(0, 40));
    }
    EXPECT_EQ(reading.records, expected);
    EXPECT_EQ(reading.failed, 1);
    EXPECT_EQ(reading.info.userDataPresent, 1u);
    EXPECT_EQ(reading.info.containerType, container);
    EXPECT_EQ(reading.info.durationMs, duration);
  }

  const int file_ = memfd_create("recording", MFD_CLOEXEC);  // holes and all, without a disk
  const string path_ = "/proc/self/fd/" + std::to_string(file_);

 public:
  ~ReaderTest() override { close(file_); }
};

Mp4 random_mp4() {
  Mp4 mp4;
  mp4.records = some_records(1 + below(30), 60);
  mp4.timescale = 1 + below(90000);
  mp4.duration = any_word();
  for (size_t left = mp4.records.size(); left > 0; left -= mp4.chunk_lengths.back()) {
    mp4.chunk_lengths.push_back(1 + below(std::min<size_t>(left, 3)));
  }
  for (size_t i = 0; i < mp4.records.size(); ++i) mp4.deltas.push_back(any_word());
  mp4.moov_first = chance(2);
  mp4.long_offsets = chance(2);
  return mp4;
}

TEST_F(ReaderTest, DeliversTheSamplesOfAnMp4InOrderWithTheirTimes) {
  for (int round = 0; round < 300; ++round) {
    Mp4 mp4 = random_mp4();
    if (round % 10 == 0) {  // beyond 4 GiB
      mp4.hole = 5ull << 30;
      mp4.moov_first = false;
      mp4.long_offsets = true;
    }
    const auto time = [&](size_t i) {
      uint64_t ticks = 0;
      for (size_t k = 0; k < i; ++k) ticks += mp4.deltas[k];
      return ticks * 1000 / mp4.timescale;
    };
    SCOPED_TRACE(round);
    expect_records(mp4.file(), mp4.records, time, 1, mp4.duration);
  }
}

Avi random_avi() {
  Avi avi;
  avi.records = some_records(1 + below(30), 60);
  avi.scale = 1 + below(1001);
  avi.rate = 1 + below(30000);
  avi.frames = below(100000);
  avi.index = static_cast<Avi::Index>(below(4));
  if (avi.index == Avi::kNone || avi.index == Avi::kOfStream) avi.in_first_riff = below(20);
  avi.grouped = chance(2);
  if (chance(2)) avi.stream_type = "txts";
  return avi;
}

TEST_F(ReaderTest, DeliversTheChunksOfAnAviHoweverTheyAreFound) {
  for (int round = 0; round < 400; ++round) {
    Avi avi = random_avi();
    if (round % 20 == 0) {  // beyond 4 GiB
      avi.index = round % 40 == 0 ? Avi::kNone : Avi::kOfStream;
      avi.in_first_riff = 2;
      avi.hole = 0xFFFFE000;
      avi.records = some_records(30, 600);
    }
    const auto time = [&](size_t i) { return i * 1000 * avi.scale / avi.rate; };
    SCOPED_TRACE("round " + std::to_string(round) + " index " + std::to_string(avi.index));
    expect_records(avi.file(), avi.records, time, 2, uint64_t{avi.frames} * 40);
  }
}

TEST_F(ReaderTest, TheMetadataFieldIsFoundInItsThreeForms) {
  const std::pair<string, uint32_t> forms[] = {
      {string("\1\2\3\xFF", 4), 0x010203FF}, {"\x34\x12", 0x1234}, {"\x80", 0x80}, {"abc", 0}, {"", 0}};
  Mp4 mp4;
  Avi avi;
  for (const auto& [payload, value] : forms) {
    mp4.metadata = avi.metadata = payload;
    for (const auto& file : {mp4.file(), avi.file()}) {
      const Reading reading = read(file);
      EXPECT_TRUE(reading.opened);
      EXPECT_EQ(reading.info.userDataPresent, 0u);
      EXPECT_EQ(reading.info.metaPresent, value != 0);
      EXPECT_EQ(reading.info.metaValue, value);
      EXPECT_TRUE(value == 0 ||
                  (file.head + file.tail).compare(reading.info.metaOffset, payload.size(), payload) == 0);
    }
  }
  mp4.metadata = "\x34\x12";
  mp4.hole = 5ull << 30;
  EXPECT_EQ(read(mp4.file()).info.metaPresent, 0u) << "its offset does not fit";
}

TEST_F(ReaderTest, ReadsRecordingsOfAnotherWriter) {  // scripts/make-recording.sh
  for (const uint32_t container : {1u, 2u}) {
    const Reading reading =
        read_all(TEST_DATA_DIR "/timed-metadata" + string(container == 1 ? ".mov" : ".avi"));
    EXPECT_EQ(reading.info.containerType, container);
    EXPECT_EQ(reading.info.durationMs, 10000u);
    ASSERT_EQ(reading.records.size(), 10u);
    for (size_t i = 0; i < 10; ++i) {
      EXPECT_EQ(reading.records[i], std::pair(i * 1000, "record " + std::to_string(i) + string(32, '.')));
    }
  }
}

TEST_F(ReaderTest, ACutOffRecordingGivesWhatIsThere) {
  Avi avi;
  avi.records = {"first", "second", "third"};
  const string whole = avi.file().head;
  EXPECT_EQ(read({whole.substr(0, whole.size() - 3), 0, ""}).records.size(), 2u);
  EXPECT_EQ(read({whole, 100, "\0"}).records.size(), 3u);  // room taken ahead
}

TEST_F(ReaderTest, FilesThatLieGiveNegativeResultsAtMost) {
  for (int round = 0; round < 2000; ++round) {
    Mp4 mp4 = random_mp4();
    Avi avi = random_avi();
    mp4.metadata = avi.metadata = "1234";
    const auto file = round % 2 == 0 ? mp4.file() : avi.file();
    string bad = file.head + file.tail;
    for (size_t n = below(4); n-- > 0;) {
      const uint32_t extreme[] = {0, 1, 7, 0x7FFFFFFF, 0xFFFFFFFF, any_word()};
      bad.replace(below(bad.size()), 4, be(extreme[below(6)], 4));
    }
    if (chance(2)) bad = some_of(bad);
    EXPECT_LE(read({bad, 0, ""}).info.userDataCount, bad.size()) << "more records than the file has bytes";
  }
  const TempDir dir;
  mkfifo(dir.file("pipe").c_str(), 0600);
  for (const auto& path : {dir.file("pipe"), dir.path(), dir.write("empty", ""), dir.file("none")}) {
    EXPECT_FALSE(read_all(path).opened) << path;
  }
}

// Sparse files whose tables are as long as the file: opening gives up instead of walking through them.
TEST_F(ReaderTest, NoFileKeepsTheReaderBusy) {
  const uint64_t hole = 3ull << 30;
  Mp4 mp4;
  mp4.records = {"x"};
  mp4.deltas = mp4.chunk_lengths = {1};
  string track = mp4.moov(40);
  track.replace(track.find("stsz") + 8, 8,
                be(1, 4) + be(0xFFFFFFFF, 4));  // as many records as can be counted
  Avi avi;
  avi.records = {"x"};
  avi.index = Avi::kOld;
  string old_index = avi.file().head;
  old_index.replace(old_index.find("idx1") + 4, 4, le(hole, 4));
  old_index.replace(4, 4, le(0xFFFFFFFF, 4));
  const SparseFile files[] = {
      {be(1, 4) + "free" + be(16, 8), hole, "x"}, {track, 0, ""}, {old_index, hole, "x"}};
  for (const auto& file : files) EXPECT_FALSE(read(file).opened) << file.head.substr(4, 4);
}

}  // namespace
