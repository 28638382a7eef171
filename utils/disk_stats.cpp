#include "utils/disk_stats.h"

#include <kiv/fs.h>

#include <cstdlib>

#include "internal/table.h"
#include "utils/split.h"

namespace kiv::utils {
namespace {

// Linux 2.6 printed 14, and each addition since then stands behind them.
constexpr std::size_t kFields = 14;

std::uint64_t ToNumber(const std::string& field) { return std::strtoull(field.c_str(), nullptr, 10); }

bool ParseDiskLine(StringView line, DiskStats::DeviceStats& out) {
  // Partitions have their entries below those of their disks.
  return ParseDiskStatsLine(line, out) && fs::Exists("/sys/block/" + out.name);
}

}  // namespace

bool ParseDiskStatsLine(StringView line, DiskStats::DeviceStats& out) {
  std::vector<std::string> fields = SplitColumns(Trim(line));
  if (fields.size() < kFields) {
    return false;
  }
  out = {std::move(fields[2]), ToNumber(fields[3]), ToNumber(fields[7]), ToNumber(fields[5]), ToNumber(fields[9])};
  return true;
}

bool DiskStats::GetAll(std::vector<DeviceStats>& out) {
  out.clear();
  internal::ReadTable("/proc/diskstats", 0, ParseDiskLine, out);
  return !out.empty();
}

bool DiskStats::GetByName(const std::string& name, DeviceStats& out) {
  std::vector<DeviceStats> all;
  return GetAll(all) && internal::TakeByName(all, name, out);
}

}  // namespace kiv::utils
