#include "utils/net_stats.h"

#include <cstdio>

#include "internal/table.h"
#include "utils/split.h"

namespace kiv::utils {

bool ParseNetDevLine(StringView line, NetStats::IfaceStats& out) {
  const std::string text = ToString(Trim(line));
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    return false;
  }
  const StringView name = Trim({text.data(), colon});
  if (name.Empty()) {
    return false;
  }
  unsigned long long rxBytes = 0;
  unsigned long long rxPackets = 0;
  unsigned long long txBytes = 0;
  unsigned long long txPackets = 0;
  // Bytes and packets open each half; between them stand errors, drops, FIFO, frame, compressed and multicast.
  // NOLINTNEXTLINE(cert-err34-c): a number that does not fit becomes the largest one, which is as good as any.
  const int converted = std::sscanf(text.c_str() + colon + 1, "%llu %llu %*u %*u %*u %*u %*u %*u %llu %llu", &rxBytes,
                                    &rxPackets, &txBytes, &txPackets);
  if (converted != 4) {
    return false;
  }
  out = {ToString(name), rxBytes, txBytes, rxPackets, txPackets};
  return true;
}

bool NetStats::GetAll(std::vector<IfaceStats>& out) {
  out.clear();
  internal::ReadTable("/proc/net/dev", 2, ParseNetDevLine, out);
  return !out.empty();
}

bool NetStats::GetByName(const std::string& name, IfaceStats& out) {
  std::vector<IfaceStats> all;
  return GetAll(all) && internal::TakeByName(all, name, out);
}

}  // namespace kiv::utils
