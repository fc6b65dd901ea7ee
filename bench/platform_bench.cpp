// The stand-in base library: reading blocks, and reading bits through a handle.
#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <vector>

#include "bench_rows.h"
#include "qmx_bits.h"
#include "qmx_file.h"

namespace {

constexpr size_t kBlock = 64 * 1024;
constexpr size_t kFileSize = 4 * 1024 * 1024;

// A file on the memory file system, there for as long as the program runs.
const char* sample_file() {
  static const int fd = [] {
    const int made = memfd_create("sample", 0);
    const std::vector<uint8_t> block(kBlock, 0x5A);
    for (size_t at = 0; at < kFileSize; at += kBlock) {
      if (write(made, block.data(), kBlock) != static_cast<ssize_t>(kBlock)) std::abort();
    }
    return made;
  }();
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return path.c_str();
}

template <class Open, class Read, class Close>
void read_blocks(benchmark::State& state, Open open_file, Read read, Close close_file) {
  std::vector<uint8_t> block(kBlock);
  for (auto _ : state) {
    FILE* const stream = open_file(sample_file());
    while (read(stream, block.data()) > 0) benchmark::DoNotOptimize(block.data());
    close_file(stream);
  }
}

// ue(v) codes, ISO/IEC 14496-10, 9.1: values 0 to 299 in turn.
const std::vector<uint8_t>& codes() {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> made(4096);
    QMXBit* const out = QMXBitOpen(made.data(), static_cast<uint32_t>(made.size()));
    for (uint32_t i = 0; QMXBitGetProcessed(out) < made.size() * 8; ++i) {
      const uint32_t code = i % 300 + 1;
      const auto length = static_cast<uint32_t>(std::bit_width(code));
      if (length > 1) QMXBitPutBit(out, length - 1, 0);
      QMXBitPutBit(out, length, code);
    }
    QMXBitClose(out);
    return made;
  }();
  return bytes;
}

constexpr int kCodes = 10;

uint32_t ue_through_handle(QMXBit* in) {
  const auto zeros = static_cast<uint32_t>(std::countl_zero(QMXBitShow(in, 32)));
  QMXBitGetBit(in, zeros);
  return QMXBitGetBit(in, zeros + 1) - 1;
}

struct RegisterReader {
  const uint8_t* data;
  size_t position;  // bits
  uint32_t ue() {
    uint64_t word;
    std::memcpy(&word, data + position / 8, sizeof word);
    word = __builtin_bswap64(word) << position % 8;
    const auto zeros = static_cast<size_t>(std::countl_zero(word));
    position += 2 * zeros + 1;
    return static_cast<uint32_t>(word >> (63 - 2 * zeros)) - 1;
  }
};

const bench::Rows rows([] {
  bench::add_system_row(
      "QMX_FileRead of 64 KiB blocks, 4 MiB through the stand-in", "fread", 1.1,
      [](benchmark::State& state) {
        read_blocks(
            state, [](const char* path) { return QMX_FileOpen(path, QMX_FILE_READ); },
            [](FILE* stream, void* block) { return QMX_FileRead(stream, block, kBlock); }, QMX_FileClose);
      },
      [](benchmark::State& state) {
        read_blocks(
            state, [](const char* path) { return std::fopen(path, "rb"); },
            [](FILE* stream, void* block) {
              return static_cast<int64_t>(std::fread(block, 1, kBlock, stream));
            },
            std::fclose);
      });
  bench::add_row(
      "ten Exp-Golomb codes through the stand-in's bit reader", "the same with a reader in registers", 6,
      [](benchmark::State& state) {
        const auto& bytes = codes();
        QMXBit* in = QMXBitOpen(bytes.data(), static_cast<uint32_t>(bytes.size()));
        for (auto _ : state) {
          if (QMXBitGetProcessed(in) > (bytes.size() - 64) * 8) {
            QMXBitClose(in);
            in = QMXBitOpen(bytes.data(), static_cast<uint32_t>(bytes.size()));
          }
          uint32_t sum = 0;
          for (int i = 0; i < kCodes; ++i) sum += ue_through_handle(in);
          benchmark::DoNotOptimize(sum);
        }
        QMXBitClose(in);
      },
      [](benchmark::State& state) {
        const auto& bytes = codes();
        RegisterReader in{bytes.data(), 0};
        for (auto _ : state) {
          if (in.position > (bytes.size() - 64) * 8) in.position = 0;
          uint32_t sum = 0;
          for (int i = 0; i < kCodes; ++i) sum += in.ue();
          benchmark::DoNotOptimize(sum);
        }
      });
});

}  // namespace
