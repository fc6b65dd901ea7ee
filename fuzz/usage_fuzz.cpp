// The line parsers of the usage monitors, held against scanf() over the same bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "internal/usage.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool cpu_line(const char* line, UsageCpuSample& sample) {
  long long n[4] = {-1, -1, -1, -1};
  std::sscanf(line, "%*s %lld %lld %lld %lld", &n[0], &n[1], &n[2], &n[3]);
  if (n[0] < 0 || n[2] < 0 || n[3] < 0) return false;
  uint64_t total = 0;
  for (const long long count : n) total += static_cast<uint64_t>(count);
  sample = {n[0], n[1], n[2], n[3], static_cast<int64_t>(total)};
  return true;
}

void check_cpu(const char* line) {
  UsageCpuSample sample = {1, 2, 3, 4, 5}, expected = sample;
  require((usage_cpu_parse(line, &sample) != 0) == cpu_line(line, expected));
  require(std::memcmp(&sample, &expected, sizeof sample) == 0);
  const UsageCpuSample before = {10, 0, 10, 10, 30};
  int32_t user, system, total;
  usage_cpu_calc(&before, &sample, &user, &system, &total);
  usage_cpu_calc(&sample, &before, &user, &system, &total);
}

void check_task(const char* line) {
  char name[256] = "", state;
  int n[13] = {};
  std::sscanf(line, "%d %255s %c %d %d %d %d %d %d %d %d %d %d %d %d", &n[12], name, &state, &n[0], &n[1],
              &n[2], &n[3], &n[4], &n[5], &n[6], &n[7], &n[8], &n[9], &n[10], &n[11]);
  UsageTaskEntry entry = {};
  usage_task_parse(line, &entry);
  require(std::string(name).substr(0, sizeof entry.name - 1) == entry.name);
  require(entry.curUser == static_cast<uint32_t>(n[10]) && entry.curSystem == static_cast<uint32_t>(n[11]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size < 255 ? size : 255);  // a line's room
  check_cpu(line.c_str());
  check_task(line.c_str());
  return 0;
}
