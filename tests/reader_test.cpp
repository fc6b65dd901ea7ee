// The stand-in's media file reader on files as recorders write them, and on files that lie.
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <tuple>

#include "recording_base.h"
#include "recordings.h"

static int reads;  // of the reader: this program stands before the C library in the search order
static bool is_broken = false;
extern "C" ssize_t pread(int fd, void* to, size_t count, off_t offset) {
  errno = is_broken ? EIO : EINTR;
  if (is_broken || ++reads % 8 == 0) return -1;  // signals interrupt some
  return syscall(SYS_pread64, fd, to, count, offset);
}

namespace {

using namespace qmxtest;
using std::string;

// Time in milliseconds and bytes, as many as there is room for; a request that fails is a record of 0 and "".
using Records = std::vector<std::pair<uint64_t, string>>;
string in_room(const string& record) { return (record + string(40, '-')).substr(0, 40); }

// Container type, duration, records; offset and value of the metadata field.
using Reading = std::tuple<uint32_t, uint64_t, Records, uint64_t, uint32_t>;

Reading read_all(const string& path) {
  QMXReaderParam param = {};
  param.path = path.c_str();
  QMXReader* reader;
  QMXReaderInfo info = {};
  if (QMXReaderOpen(&reader, &param) < 0) return {};
  EXPECT_GE(QMXReaderGetInfo(reader, &info), 0);
  Records records;
  QMXReaderFrame of_video = {};
  EXPECT_LT(QMXReaderReadFrame(reader, &of_video), 0);
  for (uint32_t i = 0; i < std::min(info.userDataCount, 10000u) + 2; ++i) {
    const GuardedBytes room(in_room(""));
    QMXReaderFrame frame = {};
    frame.data = room.data();
    frame.capacity = room.size();
    frame.kind = QMX_READER_KIND_USER_DATA;
    const bool is_read = QMXReaderReadFrame(reader, &frame) >= 0;
    EXPECT_TRUE(!is_read || i < info.userDataCount);
    records.emplace_back(frame.timeMs, is_read ? string(room.text(), room.size()) : "");
  }
  records.resize(records.size() - 2);
  QMXReaderClose(reader);
  EXPECT_EQ(info.userDataPresent, info.userDataCount > 0);
  EXPECT_EQ(info.metaPresent, info.metaValue != 0);
  return {info.containerType, info.durationMs, records, info.metaOffset, info.metaValue};
}

class ReaderTest : public BaseTest {
 protected:
  Reading read(const SparseFile& file) const {
    const auto tail_at = static_cast<off_t>(file.head.size() + file.hole);
    ssize_t written = ftruncate(file_, 0) + pwrite(file_, file.head.data(), file.head.size(), 0);
    written += pwrite(file_, file.tail.data(), file.tail.size(), tail_at);
    EXPECT_EQ(written, static_cast<ssize_t>(file.head.size() + file.tail.size()));
    return read_all("/proc/self/fd/" + std::to_string(file_));
  }
  ~ReaderTest() override { close(file_); }

 private:
  const int file_ = memfd_create("recording", MFD_CLOEXEC);  // holes and all, without a disk
};

// Files, and what is to be read of them.
struct Made {
  SparseFile file;
  Reading reading;
};

// Forms of the metadata field; a byte is one in AVI files only.
const std::pair<string, uint32_t> kForms[] = {
    {"\1\2\3\4", 0x01020304}, {"\x34\x12", 0x1234}, {"\x80", 0x80}, {"abc", 0}, {"", 0}};

Made with_field(const SparseFile& file, uint32_t container, uint64_t duration, const Records& records,
                const std::pair<string, uint32_t>& form) {
  const uint64_t at = (file.head + file.tail).find("qmxm") + (container == 1 ? 4 + file.hole : 8);
  const bool is_field = form.second != 0 && (container == 2 || form.first.size() > 1) && at <= UINT32_MAX;
  return {file, {container, duration, records, is_field ? at : 0, is_field ? form.second : 0}};
}

Made random_mp4() {
  Mp4 mp4;
  Records records;
  mp4.timescale = 1 + below(90000);
  mp4.duration = any_word();
  mp4.is_wide = chance(2);
  if (mp4.is_wide && chance(5)) mp4.hole = 5ull << 30;
  const auto& form = kForms[below(std::size(kForms))];
  mp4.boxes = box("udta", box("name", "x") + box("qmxm", form.first));
  const uint32_t empty_ms = below(3000), media_time = below(90000);
  mp4.elst = mp4.wide(empty_ms) + mp4.wide(UINT64_MAX) + be(1, 4);
  mp4.elst += mp4.wide(0) + mp4.wide(media_time) + be(1, 4);
  uint64_t ticks = 0;
  mp4.chunks.resize(below(15));
  for (auto& samples : mp4.chunks) {
    samples.resize(1 + below(3));
    for (auto& sample : samples) {
      sample = {any_bytes(below(60)), any_word(), below(1000)};
      const uint64_t time = std::max<uint64_t>(ticks + sample.shift, media_time) - media_time;
      records.emplace_back(empty_ms + time * 1000 / mp4.timescale, in_room(sample.data));
      ticks += sample.delta;
    }
  }
  return with_field(mp4.file(), 1, mp4.duration, records, form);
}

Made random_avi() {
  Avi avi;
  Records records;
  avi.scale = 1 + below(1001);
  avi.rate = 1 + below(30000);
  avi.start = below(100);
  avi.sample_size = chance(4) ? 1 + below(8) : 0;
  avi.frames = chance(10) ? 0 : below(1000);
  avi.index = static_cast<Avi::Index>(below(4));
  avi.in_first_riff = 1 + below(20);
  if (chance(20)) avi.hole = 0xFFFFE000;
  avi.pause = below(3);
  avi.is_grouped = chance(2);
  avi.is_cut_off = chance(3);
  avi.stream_type = chance(2) ? "txts" : "dats";
  const auto& form = kForms[below(std::size(kForms))];
  avi.metadata = form.first;
  uint64_t ticks = avi.start;
  for (size_t count = below(30); count > 0; --count) {
    const string record = any_bytes(1 + below(avi.hole > 0 ? 600 : 60));
    avi.records.push_back(record);
    ticks += avi.sample_size == 0 ? avi.pause : 0;
    records.emplace_back(ticks * 1000 * avi.scale / avi.rate, in_room(record));
    ticks += avi.sample_size == 0 ? 1 : record.size() / avi.sample_size;
  }
  const uint64_t last = records.empty() ? 0 : records.back().first;
  return with_field(avi.file(), 2, std::max<uint64_t>(avi.frames * 40, last), records, form);
}

TEST_F(ReaderTest, ReadsWhatIsInAFile) {
  for (int round = 0; round < 800; ++round) {
    const Made made = round % 2 == 0 ? random_mp4() : random_avi();
    EXPECT_EQ(read(made.file), made.reading) << round;
  }
}

// What ffmpeg does not write: runs without offsets, after the data of the track before; defaults of the
// movie; composition before its time; no time; edits that leave out what lies between; ends of what is whole.
TEST_F(ReaderTest, FragmentsGoOnWhereTheTablesEnd) {
  Mp4 mp4;
  mp4.chunks = {{{"table", 100}}};
  mp4.elst = be(50, 4) + be(UINT32_MAX, 4) + be(1, 4);
  mp4.elst += be(150, 4) + be(0, 4) + be(1, 4) + be(0, 4) + be(330, 4) + be(1, 4);
  const string trex = full_box("trex", 0, be(2, 4) + be(1, 4) + be(100, 4) + be(3, 4) + be(0, 4));
  mp4.boxes = box("mvex", full_box("mehd", 0, be(12345, 4)) + full_box("trex", 0, be(7, 20)) +
                              full_box("trep", 0, be(2, 4) + be(7, 16)) + trex);
  const string two = be(2, 4) + be(2, 4) + be(7, 4) + be(40, 4) + be(4, 4) + be(7, 4) + be(-20, 4);
  const string tfhd = full_box("tfhd", 0, be(2, 4)), tfdt = full_box("tfdt", 0, be(310, 4));
  const auto moof = [&](uint64_t size) {
    const string run = full_box("trun", 1, be(2, 4) + be(size + 8, 4));
    return box("moof", box("traf", full_box("tfhd", 0x20012, be(10, 4) + be(1, 4) + be(7, 4)) + tfdt + run) +
                           box("traf", tfhd + full_box("trun", 0, be(2, 4))) +
                           box("traf", tfhd + tfdt + full_box("trun", 0x1000E00, two)));
  };
  const string fragment = moof(moof(0).size()) + box("mdat", "anotheranotheronetwo34four");
  Records records = {{50, "table"}, {150, "one"}, {200, "two"}, {220, "34"}, {260, "four"}};
  for (auto& record : records) record.second = in_room(record.second);
  SparseFile file;
  for (const uint64_t at : {size_t{1} << 20, fragment.size() + 51}) {  // beyond the file, on its last byte
    file = mp4.file();
    file.tail += fragment;
    file.tail += box("moof", box("traf", tfhd + full_box("trun", 1, be(1, 4) + be(at, 4)))) + fragment;
    EXPECT_EQ(read(file), Reading(1, 12345, records, 0, 0));
  }
  mp4.boxes = box("mvex", trex);
  file = mp4.file();
  file.tail += fragment.substr(0, fragment.size() - 4);
  records.pop_back();
  EXPECT_EQ(read(file), Reading(1, 220, records, 0, 0));  // cut off: as long as its records
  for (const uint32_t size : {0, 1}) {  // no more records than bytes, the same ones again and again
    mp4.boxes = box("mvex", full_box("trex", 0, be(2, 4) + be(1, 4) + be(100, 4) + be(size, 4) + be(0, 4)));
    string runs;
    for (int i = 0; i < 10; ++i) runs += full_box("trun", 1, be(300, 4) + be(-400, 4));
    file = mp4.file();
    file.tail += box("moof", box("traf", tfhd + runs));
    EXPECT_EQ(std::get<Records>(read(file)).size(), file.head.size() + file.tail.size());
  }
  mp4.chunks = {{{"first"}}, {}, {{"no"}}, {{"longer"}}};  // so do tables
  mp4.boxes = mp4.elst = "";
  EXPECT_EQ(read(mp4.file()), Reading(1, 0, {{0, in_room("first")}, {0, ""}, {0, ""}}, 0, 0));
  mp4.chunks = {{{string(99, 'x')}}};
  file = mp4.file();
  file.tail.replace(file.tail.find("stsz") + 16, 4, be(1 << 20, 4));
  EXPECT_EQ(read(file), Reading(1, 0, {{0, ""}}, 0, 0));
  file.tail.replace(file.tail.find("stsz") + 8, 8,
                    be(1, 4) + be(UINT32_MAX, 4));  // more than there is room for
  EXPECT_EQ(read(file), Reading());
  file = mp4.file();
  file.tail.replace(file.tail.find("moov") - 4, 4, be(1 << 20, 4));
  EXPECT_EQ(read(file), Reading());
}

TEST_F(ReaderTest, ReadsRecordingsOfAnotherWriter) {  // scripts/make-recording.sh
  const struct {
    const char* name;
    uint32_t container, duration;
    int first, count;
  } files[] = {{"timed-metadata.mov", 1, 10000, 0, 10},
               {"late.mov", 1, 11041, 2040, 10},
               {"fragments.mov", 1, 10000, -2000, 10},
               {"fragments-late.mov", 1, 12040, 2040, 10},
               {"fragments-after-moov.mov", 1, 10000, 0, 10},
               {"cut-off.mov", 1, 5000, 0, 5},
               {"timed-metadata.avi", 2, 10000, 0, 10},
               {"ticks.avi", 2, 10000, 0, 10},
               {"cut-off.avi", 2, 4000, 0, 5}};
  for (const auto& file : files) {
    Records records;
    for (int i = 0; i < file.count; ++i) {
      records.emplace_back(std::max(file.first + i * 1000, 0),
                           "record " + std::to_string(i) + string(32, '.'));
    }
    EXPECT_EQ(read_all(TEST_DATA_DIR "/" + string(file.name)),
              Reading(file.container, file.duration, records, 0, 0))
        << file.name;
  }
}

// Indices lead over what is damaged; one that leads back or is of another kind is left for the movie lists.
TEST_F(ReaderTest, IndicesAreFollowedAsFarAsTheyMakeSense) {
  Avi avi;
  avi.records = {"first", "second", "third", "fourth"};
  avi.in_first_riff = 2;
  avi.frames = 100;
  const Reading reading = read(avi.file());
  for (const Avi::Index index : {Avi::kOld, Avi::kOldAbsolute, Avi::kOfStream}) {
    avi.index = index;
    SparseFile damaged = avi.file();
    damaged.head.replace(damaged.head.find("00dc", damaged.head.find("first")), 8, le(0, 8));
    EXPECT_EQ(read(damaged), reading) << index;
  }
  SparseFile leads_back = avi.file(), other_kind = leads_back, repeats = leads_back;
  const size_t entries = leads_back.head.find("indx") + 32;
  leads_back.head.replace(entries + 16, 8, leads_back.head.substr(entries, 8));
  other_kind.head.replace(entries, 8, other_kind.head.substr(entries + 16, 8));
  other_kind.head[entries - 24] = 3;  // wLongsPerEntry
  const size_t places = repeats.head.find("ix01") + 32;
  repeats.head.replace(places + 8, 8, repeats.head.substr(places, 8));
  for (const SparseFile& file : {leads_back, other_kind, repeats}) EXPECT_EQ(read(file), reading);
  SparseFile renamed = avi.file();
  renamed.head.replace(renamed.head.find("second") - 8, 4, "02tx");  // a chunk of another stream
  Reading without_second = reading;
  std::get<Records>(without_second)[1] = {0, ""};
  EXPECT_EQ(read(renamed), without_second);
  leads_back.head.replace(leads_back.head.find("movi"), 4, "none") += chunk("01tx", "outside of it");
  leads_back.tail = "";
  EXPECT_EQ(read(leads_back), Reading(2, 4000, {}, 0, 0));
  for (uint32_t* const field : {&avi.rate, &avi.scale}) {  // no clock
    *field = 0;
    EXPECT_EQ(read(avi.file()), Reading());
    *field = 1;
  }
  is_broken = true;
  EXPECT_EQ(read(avi.file()), Reading());
  is_broken = false;
}

TEST_F(ReaderTest, NoFileKeepsTheReaderBusy) {
  Mp4 mp4;
  mp4.chunks = {{{"x"}}};
  string trexs, trafs;
  for (int i = 0; i < 20000; ++i) {
    trexs += full_box("trex", 0, be(7, 20));
    trafs += box("traf", full_box("tfhd", 0, be(i, 4)));
  }
  mp4.boxes = box("mvex", trexs);
  SparseFile searches = mp4.file(),
             entries;  // each fragment through all defaults; each entry of a long index
  searches.tail += box("moof", trafs);
  Avi avi;
  avi.records = {"x"};
  entries = {avi.file().head + "idx1" + le(3u << 30, 4), 3u << 30, "x"};
  for (const auto& [file, limit] : {std::pair(searches, 10000), std::pair(entries, 1 << 19)}) {
    reads = 0;
    EXPECT_EQ(read(file), Reading());
    EXPECT_LT(reads, limit);
  }
  avi.index = Avi::kOld;
  avi.records.resize(10000, "x");  // and there is no end to work that is asked for
  EXPECT_EQ(std::get<Records>(read(avi.file())).back().second, in_room("x"));
  const TempDir dir;
  mkfifo(dir.file("pipe").c_str(), 0600);
  for (const auto& path : {dir.file("pipe"), dir.path(), dir.write("empty", ""), dir.file("none")}) {
    EXPECT_EQ(read_all(path), Reading()) << path;
  }
}

}  // namespace
