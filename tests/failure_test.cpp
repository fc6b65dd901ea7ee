// Every call of the base library fails once, one after another, under every exported function that makes it.
// What comes of each is held against data/failures.txt: the result, whether the caller's data and files are
// as they were, and what is traced. Nothing ever stays held.
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>

#include "bytes.h"
#include "qmxutil.h"
#include "recording_base.h"
#include "recordings.h"
#include "replacement_tools.h"

namespace {

using qmxtest::hex;
using qmxtest::Op;
using qmxtest::recording;
using std::string;

// Makes a call, perhaps one under which the base library fails. It is given the call, which tells its result,
// and what tells the state of the caller's data and files.
using Attempt = std::function<void(std::function<string()> call, std::function<string()> state)>;

struct Case {
  const char* name;
  std::function<void(const Attempt&)> run;  // prepares the attempt, has it made, cleans up
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

string text(int64_t value) { return std::to_string(value); }
string nothing() { return ""; }

// --- Functions that return a block or a handle

template <class T, class Release>
string made(T* thing, Release release) {
  if (thing == nullptr) return "null";
  release(thing);
  return "made";
}

template <class Call>
Case makes(const char* name, Call call) {
  return {name, [call](auto& attempt) { attempt(call, nothing); }};
}

template <class Call>
Case makes_block(const char* name, Call call) {
  return makes(name, [call] { return made(call(), [](void* block) { QMX_Free(block, 0); }); });
}

// --- Video

const string kAvcc = hex("01640028FFE100046764002801000268EE");
const string kSps = hex("640028ACD940780227E5");
const string kHvcc = hex("0101600000009000000000005D");
const string kHvccArrays = hex("01200001000440010C01");
const string kHvccWhole = kHvcc + string(9, 0) + kHvccArrays;
const string kParameterSets =
    hex("00000001 40010C01FFFF 2160000000 900000000000 7BA024"
        "00000001 420101 6120000000 900000000000 5DA003C08010E4 00000001 4401C1");
const string kSequence = hex("000001B3 160120C401A01FA0 000001B5 148A0001000009");
const string kVol = hex("0000012000845D4C28582120A31F0000");

// What a header parser fills.
struct Filled {
  VideoInfo info;
  H264ProfileInfo h264;
  H265ParamSetInfo h265;
  MPEG4VolInfo vol;
};

// Of `call`, which reads the input and fills these parts.
template <class Call, class... Part>
Case fills(const char* name, const string& input, Call call, Part... part) {
  return {name, [=](auto& attempt) {
            const qmxtest::GuardedBytes data(input);
            Filled filled = {};
            attempt([&] { return text(call(data.data(), data.size(), &(filled.*part)...)); },
                    [&] {
                      return string(data.text(), data.size()) +
                             string(reinterpret_cast<const char*>(&filled), sizeof filled);
                    });
          }};
}

Case converts(const char* name, const string& input, void (*call)(uint8_t*, uint32_t*)) {
  return {name, [=](auto& attempt) {
            const qmxtest::GuardedBytes data(input + string(16, 0));
            auto length = static_cast<uint32_t>(input.size());
            attempt([&] { return call(data.data(), &length), ""; },
                    [&] { return text(length) + ":" + string(data.text(), data.size()); });
          }};
}

// --- Files: streams, INI files, recordings, memory accounting

struct Folder {
  qmxtest::TempDir dir;
  string path;
  explicit Folder(const string& content) : path(dir.write("file", content)) {}
  string content() const { return qmxtest::read_file(path); }
};

Case reads_frame(const char* name, const string& slice, uint32_t (*call)(FILE*, uint8_t*, uint32_t)) {
  return {name, [=](auto& attempt) {
            const Folder folder(slice + slice);
            FILE* const file = QMX_FileOpen(folder.path.c_str(), QMX_FILE_READ);
            uint8_t buffer[100];
            attempt([&] { return text(call(file, buffer, sizeof buffer)); }, nothing);
            QMX_FileClose(file);
          }};
}

template <class Call>
Case on_file(const char* name, const string& content, Call call) {
  return {name, [=](auto& attempt) {
            const Folder folder(content);
            attempt([&] { return call(folder.path.c_str()); }, [&] { return folder.content(); });
          }};
}

void drop(INIHandle* ini) {
  ini->modified = 0;
  QMXUtil_INIClose(ini);
}

INIHandle* open_ini(const Folder& folder, int32_t fixed_size = 0) {
  const INIAttr attr = {1, fixed_size, 1};
  return QMXUtil_INIOpenEx(folder.path.c_str(), &attr);
}

void ini_write(const Attempt& attempt) {
  INIHandle* const ini = open_ini(Folder("a = 1\n"));
  attempt([&] { return text(QMXUtil_INIWrite(ini, "b", "2")); }, [&] { return string(ini->text); });
  drop(ini);
}

Case ini_close(const char* name, int32_t fixed_size) {
  return {name, [fixed_size](auto& attempt) {
            const Folder folder("a = 1\n");
            INIHandle* const ini = open_ini(folder, fixed_size);
            QMXUtil_INIWrite(ini, "b", "2");
            attempt([&] { return QMXUtil_INIClose(ini), ""; }, [&] { return folder.content(); });
          }};
}

const string kRecording = [] {
  qmxtest::Mp4 mp4;
  mp4.chunks = {{{"record"}}};
  mp4.boxes = qmxtest::box("udta", qmxtest::box("qmxm", qmxtest::be(5, 4)));
  return mp4.file().head + mp4.file().tail;
}();

template <class Read>
Case reads_user_data(const char* name, Read read) {
  return {name, [read](auto& attempt) {
            UserDataHandle* const handle = QMXUtil_UserDataOpen(Folder(kRecording).path.c_str(), 8);
            uint64_t out = 0;
            attempt([&] { return text(read(handle, &out)); },
                    [&] { return text(static_cast<int64_t>(out)); });
            QMXUtil_UserDataClose(handle);
          }};
}

void mem_add(const Attempt& attempt) {
  const Folder folder("");
  QMXUTIL_UsageMemOpen(folder.path.c_str());
  attempt([] { return text(QMXUTIL_UsageMemAdd("type", "item", 1 << 20)); },
          [&] {
            std::filesystem::resize_file(folder.path, 0);
            QMXUTIL_UsageMemPrint(0);
            return folder.content();
          });
  QMXUTIL_UsageMemClose();
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

    fills("GetSPSPPSInfo", kSps, UtilGetSPSPPSInfo, &Filled::info, &Filled::h264),
    fills("GetH264Info", kAvcc, QMXUtil_GetH264Info, &Filled::info, &Filled::h264),
    fills(
        "ConvH265InfoFromStartCode", kParameterSets,
        [](auto p, auto n, auto h265) { return UtilConvH265InfoFromStartCode(p, int(n), h265); },
        &Filled::h265),
    fills("ConvH265Info", kHvcc, UtilConvH265Info, &Filled::h265),
    fills(
        "GetH265Info", kHvcc, [](auto... given) { return QMXUtil_GetH265Info(given..., nullptr); },
        &Filled::info),
    fills("GetMPEG12Info", kSequence, UtilGetMPEG12Info, &Filled::info),
    fills("GetMPEG4Info", kVol, UtilGetMPEG4Info, &Filled::info, &Filled::vol),
    fills("SetMPEG4Info", string(200, 0), UtilSetMPEG4Info, &Filled::info, &Filled::vol),
    converts("ConvH264InfoToStartCode", kAvcc, QMXUtil_ConvH264InfoToStartCode),
    converts("ConvHEVCInfoToStartCode", kHvccWhole, QMXUtil_ConvHEVCInfoToStartCode),
    converts("ConvH265InfoToStartCode", kHvccArrays, QMXUtil_ConvH265InfoToStartCode),
    reads_frame("H264_ReadOneFrame", hex("0000000165888080"), UtilVideo_H264_ReadOneFrame),
    reads_frame("H265_ReadOneFrame", hex("0000000126018080"), UtilVideo_H265_ReadOneFrame),

    on_file("INIOpen", "a = 1\n", [](auto path) { return made(QMXUtil_INIOpen(path), drop); }),
    on_file("INIOpenEx", "",
            [](auto path) {
              unlink(path);
              const INIAttr attr = {1, 0, 0};
              return made(QMXUtil_INIOpenEx(path, &attr), drop);
            }),
    {"INIWrite", ini_write},
    ini_close("INIClose", 0),
    ini_close("INICloseFixed", 2048),

    on_file("UserDataOpen", kRecording,
            [](auto path) { return made(QMXUtil_UserDataOpen(path, 8), QMXUtil_UserDataClose); }),
    reads_user_data("UserDataRead",
                    [](auto* handle, void* out) { return QMXUtil_UserDataRead(handle, 0, out); }),
    reads_user_data("UserDataReadNext", QMXUtil_UserDataReadNext),
    on_file("MetaDataRead", kRecording,
            [](auto path) { return text(QMXUtil_MetaDataRead(path, QMX_META_BYTE)); }),
    on_file("MetaDataUpdate", kRecording,
            [](auto path) { return text(QMXUtil_MetaDataUpdate(path, QMX_META_BYTE, 9)); }),

    makes("UsageCpuOpen", [] { return made(QMXUTIL_UsageCpuOpen(), QMXUTIL_UsageCpuClose); }),
    makes("UsageTaskOpen",
          [] {
            const qmxtest::ReplacementTools tools;
            tools.tool("pidof", "echo 1");
            return made(QMXUTIL_UsageTaskOpen("init"), QMXUTIL_UsageTaskClose);
          }),
    on_file("UsageMemOpen", "earlier",
            [](auto path) {
              const int open = QMXUTIL_UsageMemOpen(path);
              QMXUTIL_UsageMemClose();
              return text(open);
            }),
    {"UsageMemAdd", mem_add},

    makes("TimerNew", [] { return made(QMXUtil_TimerNew(1, 1, nullptr, nullptr), QMXUtil_TimerFree); }),
};

class FailureTest : public qmxtest::BaseTest, public ::testing::WithParamInterface<Case> {};

// Makes the n-th call of `op` fail; the result is what came of that, a line, or nothing when there is no such
// call.
string failing(const Case& c, Op op, int n) {
  string line;
  recording().reset();
  c.run([&](const auto& call, const auto& state) {
    const string before = state();
    const int held = recording().held();
    recording().clear_traces();
    recording().fail(op, n);
    const string result = call();
    recording().stop_failing();
    if (recording().failed_call().empty() && n > 0) return;
    EXPECT_LE(recording().held(), n > 0 ? held : INT_MAX);
    line = (n > 0 ? recording().failed_call() : "none") + " -> " + result;
    for (const auto& trace : recording().traces()) line += " | " + text(trace.level) + " " + trace.text;
    if (state() != before) line += " | changed";
  });
  EXPECT_EQ(recording().held(), 0) << line;
  line = std::regex_replace(line, std::regex("\n"), "/");
  return std::regex_replace(line, std::regex("/tmp/qmxutil-test-......"), "DIR");
}

TEST_P(FailureTest, EachCallFailsOnce) {
  string seen = failing(GetParam(), Op::kMalloc, 0) + "\n";  // none fails
  for (int op = 0; op < static_cast<int>(Op::kCannotFail); ++op) {
    int n = 0;
    for (string line; !(line = failing(GetParam(), static_cast<Op>(op), ++n)).empty();) seen += line + "\n";
  }
  std::ifstream file(TEST_DATA_DIR "/failures.txt");
  string expected, line;
  for (bool here = false; std::getline(file, line);) {
    if (line.starts_with("[")) here = line == string("[") + GetParam().name + "]";
    if (here && !line.starts_with("[")) expected += line + "\n";
  }
  EXPECT_EQ(seen, expected);
}

INSTANTIATE_TEST_SUITE_P(Exported, FailureTest, ::testing::ValuesIn(kCases),
                         [](const auto& c) { return string(c.param.name); });

}  // namespace
