// The stand-in's media file reader on files as recorders write them, and on files that lie.
#include <sys/mman.h>
#include <sys/stat.h>

#include <functional>
#include <random>

#include "recording_base.h"
#include "recordings.h"

namespace {

using namespace qmxtest;

struct Reading {
  int opened = -1;
  QMXReaderInfo info = {};
  std::vector<std::pair<uint64_t, std::string>> records;  // until the reader gives no more
  int failed = 0;                                         // of as many as the information promises
};

Reading read_all(const std::string& path, uint32_t capacity = 1024) {
  Reading reading;
  QMXReaderParam param = {};
  param.path = path.c_str();
  QMXReader* reader;
  reading.opened = QMXReaderOpen(&reader, &param);
  if (reading.opened < 0) return reading;
  EXPECT_GE(QMXReaderGetInfo(reader, &reading.info), 0);
  GuardedBytes room(capacity);
  for (uint32_t i = 0; i <= std::min(reading.info.userDataCount, 10000u); ++i) {
    QMXReaderFrame frame = {};
    frame.data = room.data();
    frame.capacity = capacity;
    frame.kind = QMX_READER_KIND_USER_DATA;
    std::fill_n(room.data(), capacity, uint8_t{'-'});
    if (QMXReaderReadFrame(reader, &frame) >= 0) {
      reading.records.emplace_back(frame.timeMs, std::string(room.text(), capacity));
    } else {
      ++reading.failed;
    }
  }
  QMXReaderClose(reader);
  return reading;
}

std::vector<std::string> some_records(std::mt19937& random, size_t count, size_t longest) {
  std::vector<std::string> records(count);
  for (auto& record : records) {
    record.resize(random() % (longest + 1));
    for (char& c : record) c = static_cast<char>('a' + random() % 26);
  }
  return records;
}

class ReaderTest : public BaseTest {
 protected:
  // What was written is what is read; one request too many fails.
  void expect_records(const SparseFile& file, const std::vector<std::string>& records,
                      const std::function<uint64_t(size_t)>& time_ms, uint32_t container, uint64_t duration) {
    file.write(path_);
    const Reading reading = read_all(path_, 40);
    std::vector<std::pair<uint64_t, std::string>> expected;
    for (const std::string& record : records) {
      const std::string cut = record.substr(0, 40);
      expected.emplace_back(time_ms(expected.size()), cut + std::string(40 - cut.size(), '-'));
    }
    ASSERT_GE(reading.opened, 0);
    EXPECT_EQ(reading.records, expected);
    EXPECT_EQ(reading.failed, 1);
    EXPECT_EQ(reading.info.userDataPresent, 1u);
    EXPECT_EQ(reading.info.containerType, container);
    EXPECT_EQ(reading.info.durationMs, duration);
  }

  const int file_ = memfd_create("recording", MFD_CLOEXEC);  // holes and all, without a disk
  const std::string path_ = "/proc/self/fd/" + std::to_string(file_);

 public:
  ~ReaderTest() override { close(file_); }
};

Mp4 random_mp4(std::mt19937& random) {
  Mp4 mp4;
  mp4.records = some_records(random, 1 + random() % 30, 60);
  mp4.timescale = 1 + static_cast<uint32_t>(random() % 90000);
  mp4.duration = static_cast<uint32_t>(random());
  for (size_t left = mp4.records.size(); left > 0; left -= mp4.chunk_lengths.back()) {
    mp4.chunk_lengths.push_back(static_cast<uint32_t>(1 + random() % std::min<size_t>(left, 3)));
  }
  for (size_t i = 0; i < mp4.records.size(); ++i) mp4.deltas.push_back(static_cast<uint32_t>(random()));
  mp4.moov_first = random() % 2;
  mp4.long_offsets = random() % 2;
  return mp4;
}

TEST_F(ReaderTest, DeliversTheSamplesOfAnMp4InOrderWithTheirTimes) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    Mp4 mp4 = random_mp4(random);
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

Avi random_avi(std::mt19937& random) {
  Avi avi;
  avi.records = some_records(random, 1 + random() % 30, 60);
  avi.scale = 1 + static_cast<uint32_t>(random() % 1001);
  avi.rate = 1 + static_cast<uint32_t>(random() % 30000);
  avi.frames = static_cast<uint32_t>(random() % 100000);
  avi.index = static_cast<Avi::Index>(random() % 4);
  if (avi.index == Avi::kNone || avi.index == Avi::kOfStream) avi.in_first_riff = random() % 20;
  avi.grouped = random() % 2;
  if (random() % 2) avi.stream_type = "txts";
  return avi;
}

TEST_F(ReaderTest, DeliversTheChunksOfAnAviHoweverTheyAreFound) {
  std::mt19937 random(2);
  for (int round = 0; round < 400; ++round) {
    Avi avi = random_avi(random);
    if (round % 20 == 0) {  // beyond 4 GiB
      avi.index = round % 40 == 0 ? Avi::kNone : Avi::kOfStream;
      avi.in_first_riff = 2;
      avi.hole = 0xFFFFE000;
      avi.records = some_records(random, 30, 600);
    }
    const auto time = [&](size_t i) { return i * 1000 * avi.scale / avi.rate; };
    SCOPED_TRACE("round " + std::to_string(round) + " index " + std::to_string(avi.index));
    expect_records(avi.file(), avi.records, time, 2, uint64_t{avi.frames} * 40);
  }
}

TEST_F(ReaderTest, TheMetadataFieldIsFoundInItsThreeForms) {
  const std::pair<std::string, uint32_t> forms[] = {
      {std::string("\1\2\3\xFF", 4), 0x010203FF}, {"\x34\x12", 0x1234}, {"\x80", 0x80}, {"abc", 0}, {"", 0}};
  for (const auto& [payload, value] : forms) {
    Mp4 mp4;
    Avi avi;
    mp4.metadata = avi.metadata = payload;
    for (const auto& file : {mp4.file(), avi.file()}) {
      file.write(path_);
      const Reading reading = read_all(path_);
      ASSERT_GE(reading.opened, 0);
      EXPECT_EQ(reading.info.userDataPresent, 0u);
      EXPECT_EQ(reading.info.metaPresent, value != 0);
      EXPECT_EQ(reading.info.metaValue, value);
      if (value != 0) {
        EXPECT_EQ(read_file(path_).substr(reading.info.metaOffset, payload.size()), payload);
      }
    }
  }
  Mp4 far;
  far.metadata = "\x34\x12";
  far.hole = 5ull << 30;
  far.file().write(path_);
  EXPECT_EQ(read_all(path_).info.metaPresent, 0u) << "its offset does not fit";
}

TEST_F(ReaderTest, ReadsRecordingsOfAnotherWriter) {  // scripts/make-recording.sh
  for (const uint32_t container : {1u, 2u}) {
    const std::string name = TEST_DATA_DIR "/timed-metadata";
    const Reading reading = read_all(name + (container == 1 ? ".mov" : ".avi"), 64);
    ASSERT_GE(reading.opened, 0);
    EXPECT_EQ(reading.info.containerType, container);
    EXPECT_EQ(reading.info.durationMs, 10000u);
    ASSERT_EQ(reading.records.size(), 10u);
    for (size_t i = 0; i < 10; ++i) {
      EXPECT_EQ(reading.records[i].first, i * 1000);
      EXPECT_EQ(reading.records[i].second, "record " + std::to_string(i) + std::string(56, '.'));
    }
  }
}

TEST_F(ReaderTest, ACutOffRecordingGivesWhatIsThere) {
  Avi avi;
  avi.records = {"first", "second", "third"};
  const std::string whole = avi.file().head;
  SparseFile{whole.substr(0, whole.size() - 3), 0, ""}.write(path_);
  EXPECT_EQ(read_all(path_).records.size(), 2u);
  SparseFile{whole, 100, "\0"}.write(path_);  // room taken ahead
  EXPECT_EQ(read_all(path_).records.size(), 3u);
}

TEST_F(ReaderTest, FilesThatLieGiveNegativeResultsAtMost) {
  std::mt19937 random(3);
  for (int round = 0; round < 60; ++round) {
    Mp4 mp4 = random_mp4(random);
    Avi avi = random_avi(random);
    mp4.metadata = avi.metadata = "1234";
    const auto file = round % 2 == 0 ? mp4.file() : avi.file();
    const std::string good = file.head + file.tail;
    for (int k = 0; k < 60; ++k) {
      std::string bad = good;
      for (size_t n = random() % 4; n-- > 0;) {
        const size_t at = random() % bad.size();
        const uint32_t extreme[] = {0, 1, 7, 0x7FFFFFFF, 0xFFFFFFFF, static_cast<uint32_t>(random())};
        bad.replace(at, 4, be(extreme[random() % 6], 4));
      }
      if (k % 2 == 0) bad.resize(random() % bad.size());
      SparseFile{bad, 0, ""}.write(path_);
      const Reading reading = read_all(path_);
      EXPECT_LE(reading.info.userDataCount, bad.size()) << "more records than the file has bytes";
    }
  }
  const TempDir dir;
  mkfifo(dir.file("pipe").c_str(), 0600);
  for (const auto& path : {dir.file("pipe"), dir.path(), dir.write("empty", ""), dir.file("none")}) {
    EXPECT_LT(read_all(path).opened, 0) << path;
  }
}

// Sparse files whose tables are as long as the file: opening gives up instead of walking through them.
TEST_F(ReaderTest, NoFileKeepsTheReaderBusy) {
  const auto header = [](const std::string& name, uint64_t size) { return be(1, 4) + name + be(size, 8); };
  const uint64_t hole = 3ull << 30;
  Mp4 mp4;
  mp4.records = {"x"};
  mp4.deltas = mp4.chunk_lengths = {1};
  std::string track = mp4.moov(40);
  const size_t stsz = track.find("stsz");
  track.replace(stsz + 8, 8, be(1, 4) + be(0xFFFFFFFF, 4));  // as many records as can be counted
  Avi avi;
  avi.records = {"x"};
  avi.index = Avi::kOld;
  std::string old_index = avi.file().head;
  old_index.replace(old_index.find("idx1") + 4, 4, le(hole, 4));
  old_index.replace(4, 4, le(0xFFFFFFFF, 4));
  const SparseFile files[] = {{header("free", 16), hole, "x"}, {track, 0, ""}, {old_index, hole, "x"}};
  for (const auto& file : files) {
    file.write(path_);
    EXPECT_LT(read_all(path_).opened, 0) << file.head.substr(4, 4);
  }
}

}  // namespace
