// Every call of the base library fails once, one after another, under every exported function that makes it:
// the result is the stated one, nothing stays held, and the caller's data and files are as they were.
#include <filesystem>
#include <functional>
#include <map>
#include <memory>

#include "qmxutil.h"
#include "recording_base.h"
#include "recordings.h"
#include "replacement_tools.h"

namespace {

using qmxtest::Op;
using qmxtest::recording;
using std::string;

// A function about to be called, with what it is given.
struct Scene {
  std::function<string()> run;                                    // calls it; its result
  std::function<string()> state = [] { return string("none"); };  // the caller's data and files
};

struct Case {
  const char* name;
  string failed;  // the result when a call fails
  std::function<Scene()> make;
  std::map<Op, string> despite = {};  // calls whose failure gives this result, and leaves a state of its own
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

string text(int64_t value) { return std::to_string(value); }

template <class T>
string bytes_of(const T& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

// --- Functions that return a block or a handle

template <class T, class Release>
string made(T* thing, Release release) {
  if (thing == nullptr) return "null";
  release(thing);
  return "made";
}

Case makes_block(const char* name, std::function<void*()> call) {
  return {name, "null",
          [call] { return Scene{[call] { return made(call(), [](void* block) { QMX_Free(block, 0); }); }}; }};
}

// --- Video

string hex(const char* digits) {
  string bytes;
  for (; *digits != 0; digits += 2) bytes += static_cast<char>(std::stoi(string(digits, 2), nullptr, 16));
  return bytes;
}

const string kAvcc = hex("01640028FFE100046764002801000268EE");
const string kSps = hex("640028ACD940780227E5");
const string kHvcc = hex("0101600000009000000000005D");
const string kHvccArrays = hex("01200001000440010C01");
const string kHvccWhole = kHvcc + string(9, 0) + kHvccArrays;
const string kParameterSets =
    hex("0000000140010C01") + string(20, 1) + hex("0000000142010101") + string(20, 1) + hex("000000014401C1");
const string kSequence = hex("000001B3160120C401A01FA0");
const string kVol = hex("0000012000845D4C28582120A31F0000");

// What a header parser fills.
struct Filled {
  VideoInfo info = {};
  H264ProfileInfo h264 = {};
  H265ParamSetInfo h265 = {};
  MPEG4VolInfo vol = {};
  uint8_t out[200] = {};
};

using Fill = std::function<int64_t(const uint8_t*, uint32_t, Filled&)>;
Case fills(const char* name, const string& input, Fill call, string failed = "0",
           std::map<Op, string> despite = {}) {
  return {name, failed,
          [=] {
            const auto data = std::make_shared<qmxtest::GuardedBytes>(input);
            const auto filled = std::make_shared<Filled>();
            return Scene{[=] { return text(call(data->data(), data->size(), *filled)); },
                         [=] { return bytes_of(*filled); }};
          },
          despite};
}

Case converts(const char* name, const string& input, void (*call)(uint8_t*, uint32_t*)) {
  return {name, "void", [=] {
            const auto data = std::make_shared<qmxtest::GuardedBytes>(input + string(16, 0));
            const auto length = std::make_shared<uint32_t>(static_cast<uint32_t>(input.size()));
            return Scene{[=] {
                           call(data->data(), length.get());
                           return "void";
                         },
                         [=] { return text(*length) + ":" + string(data->text(), data->size()); }};
          }};
}

Case reads_frame(const char* name, const string& slice, uint32_t (*call)(FILE*, uint8_t*, uint32_t)) {
  return {name,
          "0",
          [=] {
            const auto dir = std::make_shared<qmxtest::TempDir>();
            const string path = dir->write("stream", slice + slice);
            const std::shared_ptr<FILE> file(QMX_FileOpen(path.c_str(), QMX_FILE_READ), QMX_FileClose);
            return Scene{[=] {
                           uint8_t buffer[100];
                           return text(call(file.get(), buffer, sizeof buffer));
                         },
                         [dir, path] { return qmxtest::read_file(path); }};
          },
          {{Op::kFileSeek, text(static_cast<int64_t>(slice.size()))}}};
}

// --- INI files, recordings, memory accounting: things with a file

struct Folder {
  qmxtest::TempDir dir;
  string path;
  explicit Folder(const string& content) : path(dir.write("file", content)) {}
  string content() const { return qmxtest::read_file(path); }
};

Case on_file(const char* name, string failed, const string& content, std::function<string(const char*)> call,
             std::map<Op, string> despite = {}) {
  return {name, failed,
          [=] {
            const auto folder = std::make_shared<Folder>(content);
            return Scene{[=] { return call(folder->path.c_str()); }, [=] { return folder->content(); }};
          },
          despite};
}

void drop(INIHandle* ini) {
  ini->modified = 0;
  QMXUtil_INIClose(ini);
}

Scene ini_write() {
  const Folder folder("a = 1\n");
  const INIAttr attr = {1, 0, 0};
  const std::shared_ptr<INIHandle> ini(QMXUtil_INIOpenEx(folder.path.c_str(), &attr), drop);
  return {[=] { return text(QMXUtil_INIWrite(ini.get(), "b", "2")); }, [=] { return string(ini->text); }};
}

Case ini_close(const char* name, int32_t fixed_size, std::map<Op, string> despite) {
  return {name, "void",
          [fixed_size] {
            const auto folder = std::make_shared<Folder>("a = 1\n");
            const INIAttr attr = {1, fixed_size, 1};
            INIHandle* const ini = QMXUtil_INIOpenEx(folder->path.c_str(), &attr);
            QMXUtil_INIWrite(ini, "b", "2");
            return Scene{[=] {
                           QMXUtil_INIClose(ini);
                           return "void";
                         },
                         [=] { return folder->content(); }};
          },
          despite};
}

string recording_with_everything() {
  qmxtest::Mp4 mp4;
  mp4.records = {"record"};
  mp4.deltas = {0};
  mp4.chunk_lengths = {1};
  mp4.metadata = qmxtest::be(5, 4);
  return mp4.file().head + mp4.file().tail;
}
const string kRecording = recording_with_everything();

Scene user_data(int (*read)(UserDataHandle*, void*)) {
  const Folder folder(kRecording);
  const std::shared_ptr<UserDataHandle> handle(QMXUtil_UserDataOpen(folder.path.c_str(), 8),
                                               QMXUtil_UserDataClose);
  const auto out = std::make_shared<uint64_t>(0);
  return {[=] { return text(read(handle.get(), out.get())); }, [=] { return bytes_of(*out); }};
}

Scene mem_add() {
  const auto folder = std::make_shared<Folder>("");
  QMXUTIL_UsageMemOpen(folder->path.c_str());
  const std::shared_ptr<void> open(nullptr, [](void*) { QMXUTIL_UsageMemClose(); });
  return {[] { return text(QMXUTIL_UsageMemAdd("type", "item", 1 << 20)); },
          [folder, open] {
            std::filesystem::resize_file(folder->path, 0);
            QMXUTIL_UsageMemPrint(0);
            return folder->content();
          }};
}

const uint8_t kByte[] = {'a'};
uint32_t ignored;

const Case kCases[] = {
    makes_block("Strdupn", [] { return QMXUtilStrdupn("text", 2); }),
    makes_block("Strdup", [] { return QMXUtilStrdup("text"); }),
    makes_block("Strmcat", [] { return QMXUtilStrmcat("text", "more"); }),
    makes_block("ConvBinToStr", [] { return QMXUtil_ConvBinToStr(kByte, 1); }),
    makes_block("Base64Encoding", [] { return QMXUtilBase64Encoding(kByte, 1, &ignored); }),
    makes_block("Base64ConvToBin", [] { return QMXUtilBase64ConvToBin("QUJD", 4, &ignored); }),

    fills("GetSPSPPSInfo", kSps,
          [](auto p, auto n, auto& f) { return UtilGetSPSPPSInfo(p, n, &f.info, &f.h264); }),
    fills("GetH264Info", kAvcc,
          [](auto p, auto n, auto& f) { return QMXUtil_GetH264Info(p, n, &f.info, &f.h264); }),
    fills("ConvH265InfoFromStartCode", kParameterSets,
          [](auto p, auto n, auto& f) { return UtilConvH265InfoFromStartCode(p, int(n), &f.h265); }, "",
          {{Op::kBitOpen, "0"}}),  // the sets are located all the same
    fills("ConvH265Info", kHvcc, [](auto p, auto n, auto& f) { return UtilConvH265Info(p, n, &f.h265); }),
    fills(
        "GetH265Info", kHvcc,
        [](auto p, auto n, auto& f) { return QMXUtil_GetH265Info(p, n, &f.info, nullptr); }, "1"),
    fills("GetMPEG12Info", kSequence,
          [](auto p, auto n, auto& f) { return UtilGetMPEG12Info(p, n, &f.info); }),
    fills("GetMPEG4Info", kVol,
          [](auto p, auto n, auto& f) { return UtilGetMPEG4Info(p, n, &f.info, &f.vol); }),
    fills("SetMPEG4Info", "",
          [](auto, auto, auto& f) { return UtilSetMPEG4Info(f.out, sizeof f.out, &f.info, &f.vol); }),
    converts("ConvH264InfoToStartCode", kAvcc, QMXUtil_ConvH264InfoToStartCode),
    converts("ConvHEVCInfoToStartCode", kHvccWhole, QMXUtil_ConvHEVCInfoToStartCode),
    converts("ConvH265InfoToStartCode", kHvccArrays, QMXUtil_ConvH265InfoToStartCode),
    reads_frame("H264_ReadOneFrame", hex("0000000165888080"), UtilVideo_H264_ReadOneFrame),
    reads_frame("H265_ReadOneFrame", hex("0000000126018080"), UtilVideo_H265_ReadOneFrame),

    on_file("INIOpen", "null", "a = 1\n", [](const char* path) { return made(QMXUtil_INIOpen(path), drop); }),
    on_file("INIOpenEx", "null", "",
            [](const char* path) {
              unlink(path);
              const INIAttr attr = {1, 0, 0};
              return made(QMXUtil_INIOpenEx(path, &attr), drop);
            }),
    {"INIWrite", "0", ini_write},
    // Written, but perhaps not on the storage yet.
    ini_close("INIClose", 0, {{Op::kFileSync, "void"}}),
    // Without memory for the padding the text alone is written; a write that fails is not seen as such.
    ini_close("INICloseFixed", 2048,
              {{Op::kFileSync, "void"}, {Op::kMalloc, "void"}, {Op::kFileWrite, "void"}}),

    on_file("UserDataOpen", "null", kRecording,
            [](const char* path) { return made(QMXUtil_UserDataOpen(path, 8), QMXUtil_UserDataClose); }),
    {"UserDataRead", "0",
     [] { return user_data([](UserDataHandle* h, void* out) { return QMXUtil_UserDataRead(h, 0, out); }); }},
    {"UserDataReadNext", "0", [] { return user_data(QMXUtil_UserDataReadNext); }},
    on_file("MetaDataRead", "0", kRecording,
            [](const char* path) { return text(QMXUtil_MetaDataRead(path, QMX_META_BYTE)); }),
    on_file("MetaDataUpdate", "0", kRecording,
            [](const char* path) { return text(QMXUtil_MetaDataUpdate(path, QMX_META_BYTE, 9)); },
            {{Op::kFileWrite, "1"}}),

    {"UsageCpuOpen", "null",
     [] { return Scene{[] { return made(QMXUTIL_UsageCpuOpen(), QMXUTIL_UsageCpuClose); }}; }},
    {"UsageTaskOpen", "null",
     [] {
       const auto tools = std::make_shared<qmxtest::ReplacementTools>();
       tools->tool("pidof", "echo 1");
       return Scene{[tools] { return made(QMXUTIL_UsageTaskOpen("init"), QMXUTIL_UsageTaskClose); }};
     }},
    on_file("UsageMemOpen", "0", "earlier",
            [](const char* path) {
              const int open = QMXUTIL_UsageMemOpen(path);
              QMXUTIL_UsageMemClose();
              return text(open);
            }),
    {"UsageMemAdd", "0", mem_add},

    {"TimerNew", "null",
     [] { return Scene{[] { return made(QMXUtil_TimerNew(1, 1, nullptr, nullptr), QMXUtil_TimerFree); }}; }},
};

class FailureTest : public qmxtest::BaseTest, public ::testing::WithParamInterface<Case> {};

TEST_P(FailureTest, EachCallFailsOnce) {
  const Case& c = GetParam();
  int failures = 0;
  for (int op = 0; op < static_cast<int>(Op::kCount); ++op) {
    bool fired = true;
    for (int n = 1; fired; ++n) {
      SCOPED_TRACE("operation " + text(op) + ", call " + text(n));
      recording().reset();
      {
        const Scene scene = c.make();
        const string before = scene.state();
        const int held = recording().held();
        recording().fail(static_cast<Op>(op), n);
        const string result = scene.run();
        fired = recording().fired();
        recording().stop_failing();
        const auto despite = c.despite.find(static_cast<Op>(op));
        const bool as_before = scene.state() == before;
        if (!fired) {
          EXPECT_FALSE(result == c.failed && as_before) << "the run that nothing fails does its work";
        } else if (despite != c.despite.end()) {
          EXPECT_EQ(result, despite->second);
        } else {
          EXPECT_EQ(result, c.failed);
          EXPECT_TRUE(as_before);
        }
        if (fired) {
          EXPECT_LE(recording().held(), held);
          ++failures;
        }
      }
      ASSERT_EQ(recording().held(), 0);
    }
  }
  EXPECT_GT(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Exported, FailureTest, ::testing::ValuesIn(kCases),
                         [](const auto& c) { return string(c.param.name); });

}  // namespace
