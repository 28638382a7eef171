#ifndef KIV_UTILS_SYSTEM_STATS_H
#define KIV_UTILS_SYSTEM_STATS_H

#include <kiv/utils.h>

#include <cstdint>
#include <string>

/// What the files behind SystemStats say, as pure code on memory. Layout: proc(5).
namespace kiv::utils {

/// The time of all processors together since the start, in clock ticks. Counters that an old kernel does not have are
/// 0.
struct CpuTimes {
  std::uint64_t user = 0;
  std::uint64_t nice = 0;
  std::uint64_t system = 0;
  std::uint64_t idle = 0;
  std::uint64_t iowait = 0;
  std::uint64_t irq = 0;
  std::uint64_t softirq = 0;
  std::uint64_t steal = 0;
};

/// Reads the first line of /proc/stat. Returns false, with `out` untouched, when it is not the one of all processors or
/// has fewer than four counters.
bool ParseCpuLine(const std::string& line, CpuTimes& out);

/// Computes the usage between two samples. Returns false, with `out` untouched, when no time lies between them.
bool ComputeUsage(const CpuTimes& before, const CpuTimes& now, SystemStats::CpuUsage& out);

/// Reads the line of /proc/loadavg. Returns false, with `out` untouched, when it does not begin with three numbers.
bool ParseLoadAvg(const std::string& line, SystemStats::LoadAvg& out);

/// Reads the line of /proc/uptime. Returns false, with `seconds` untouched, when it does not begin with a number.
bool ParseUptime(const std::string& line, double& seconds);

/// Reads all of /proc/meminfo into `out`, which is cleared first. Returns whether it gives the total.
bool ParseMemInfo(StringView text, SystemStats::MemInfo& out);

/// Reads the first line of a file, without its newline. Returns false when there is no file, or nothing in that line.
bool ReadFirstLine(const char* path, std::string& line);

}  // namespace kiv::utils

#endif  // KIV_UTILS_SYSTEM_STATS_H
