// Video headers, conversions and frame readers: nothing outside the bytes, everything ends, samples convert
// back, and the frames of a file join to the file.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "internal/first_frame.h"
#include "qmx_file.h"
#include "qmxutil_video.h"

namespace {

using Bytes = std::vector<uint8_t>;  // exactly as long as its content: a step past the end is seen

void require(bool condition) {
  if (!condition) abort();
}

void parse(const Bytes& data) {
  const uint32_t size = static_cast<uint32_t>(data.size());
  VideoInfo info = {};
  H264ProfileInfo profile = {};
  MPEG4VolInfo vol = {};
  UtilGetSPSPPSInfo(data.data(), size, &info, &profile);
  require(info.width % 16 == 0 && info.height % 16 == 0 && profile.profile < 256 && profile.level < 256);
  if (QMXUtil_GetH264Info(data.data(), size, nullptr, &profile)) {
    require(profile.nalLengthSize >= 1 && profile.nalLengthSize <= 4);
  }
  QMXUtil_GetH265Info(data.data(), size, &info, nullptr);
  require(info.profile < 32 && info.level < 256);
  if (UtilGetMPEG12Info(data.data(), size, &info)) require(info.width < 4096 && info.height < 4096);
  if (UtilGetMPEG4Info(data.data(), size, &info, &vol)) {
    require(info.width == vol.width && info.height == vol.height && vol.timeIncrementBits <= 16);
    Bytes header(200);
    VideoInfo again = {};
    require(UtilSetMPEG4Info(header.data(), 0, &info, &vol) == 66);
    require(UtilGetMPEG4Info(header.data(), 66, &again, nullptr));
    require(again.width == info.width && again.height == info.height);
    vol.quantType = 1;
    require(UtilSetMPEG4Info(header.data(), 0, &info, &vol) > 0);
  }
  Bytes vop(data.begin(), data.begin() + std::min<ptrdiff_t>(size, 145));
  vop.resize(145);
  VopCheckCoded(vop.data(), size);

  for (const char* const codec : {"H264", "hvc1", "MP4V", "MPEG", "none"}) {
    std::memcpy(&info.codec, codec, sizeof info.codec);
    require(QMXUtil_GetVideoInfo(data.data(), size, &info) <= 1);
  }
  H265ParamSetInfo sets = {};
  UtilConvH265InfoFromStartCode(data.data(), static_cast<int32_t>(size), &sets);
  const auto inside = [&](const uint8_t* nal, uint32_t length) {
    if (nal == nullptr) return length == 0;
    return nal >= data.data() + 4 && length > 0 && length <= data.data() + size - nal;
  };
  require(inside(sets.vpsNal, sets.vpsNalLength) && inside(sets.spsNal, sets.spsNalLength) &&
          inside(sets.ppsNal, sets.ppsNalLength));
}

void convert_records(const Bytes& data) {
  const uint32_t size = static_cast<uint32_t>(data.size());
  for (const auto convert :
       {QMXUtil_ConvH264InfoToStartCode, QMXUtil_ConvH265InfoToStartCode, QMXUtil_ConvHEVCInfoToStartCode}) {
    Bytes record = data;
    record.resize(convert == QMXUtil_ConvHEVCInfoToStartCode ? size : 2 * size);
    uint32_t length = size;
    convert(record.data(), &length);
    require(length <= record.size());
  }
  Bytes out(size + 7);
  uint32_t length = 0;
  const H264ProfileInfo profile = {100, 0, 40, 4, 1};
  UtilConvH264InfoFromStartCode(data.data(), size, out.data(), &length, &profile);
  require(size == 0 ? length == 0 : length <= size + 7);
  Bytes units(size);
  QMXUtil_ConvH26xExtraDataFromStartCode(data.data(), static_cast<int32_t>(size), units.data(), &length);
  require(length <= size);
  Bytes payload = data;
  length = size;
  QMXUtil_H26xRemoveEPB(payload.data(), &length);
  require(length <= size && size - length <= size / 2);
}

void convert_samples(const Bytes& data) {
  const int32_t size = static_cast<int32_t>(data.size());
  Bytes sample = data;
  UtilConvH264FrameToStartCode(sample.data(), size);
  sample.insert(sample.begin(), {0, 0, 0, 1, 'n', 'o', 't', ' ', '1'});
  const Bytes with_start_codes = sample;
  const int32_t longer = static_cast<int32_t>(sample.size());
  UtilConvH264FrameFromStartCode(sample.data(), longer);
  UtilConvH264FrameToStartCode(sample.data(), longer);
  require(sample == with_start_codes);
}

using ReadFrame = uint32_t (*)(FILE*, uint8_t*, uint32_t);

void cut(ReadFrame read, const std::string& path, const Bytes& data, uint32_t size) {
  FILE* const file = QMX_FileOpen(path.c_str(), QMX_FILE_READ);
  require(file != nullptr);
  Bytes buffer(size), joined;
  while (const uint32_t length = read(file, buffer.data(), size)) {
    joined.insert(joined.end(), buffer.begin(), buffer.begin() + length);
    require(QMX_FileTell(file) == static_cast<int64_t>(joined.size()));
  }
  if (size > data.size() + 2) require(joined == data);  // a slice header needs room for a byte after it
  require(joined.size() <= data.size() && std::equal(joined.begin(), joined.end(), data.begin()));
  QMX_FileClose(file);
}

void cut_frames(const Bytes& data) {
  const int descriptor = memfd_create("video_fuzz", MFD_CLOEXEC);
  require(write(descriptor, data.data(), data.size()) == static_cast<ssize_t>(data.size()));
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  const uint32_t small = data.empty() ? 0 : data.back();
  for (const ReadFrame read : {UtilVideo_H264_ReadOneFrame, UtilVideo_H265_ReadOneFrame}) {
    for (const uint32_t size : {static_cast<uint32_t>(data.size() + 3), small}) {
      g_bFirstFrame = data.size() % 2;
      cut(read, path, data, size);
    }
  }
  close(descriptor);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return setenv("QMX_TRACE", "0", 1); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  const Bytes data(input, input + size);
  parse(data);
  convert_records(data);
  convert_samples(data);
  cut_frames(data);
  return 0;
}
