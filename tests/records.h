#ifndef KIV_TESTS_RECORDS_H
#define KIV_TESTS_RECORDS_H

#include <kiv/utils.h>

#include <cstdint>
#include <string>

namespace kiv::test {

/// Returns "NAME rxBytes txBytes rxPackets txPackets", the record's own order.
inline std::string Text(const utils::NetStats::IfaceStats& stats) {
  std::string text = stats.name;
  for (const std::uint64_t counter : {stats.rxBytes, stats.txBytes, stats.rxPackets, stats.txPackets}) {
    text += ' ' + std::to_string(counter);
  }
  return text;
}

/// Returns "NAME readsCompleted writesCompleted sectorsRead sectorsWritten", the record's own order.
inline std::string Text(const utils::DiskStats::DeviceStats& stats) {
  std::string text = stats.name;
  for (const std::uint64_t counter :
       {stats.readsCompleted, stats.writesCompleted, stats.sectorsRead, stats.sectorsWritten}) {
    text += ' ' + std::to_string(counter);
  }
  return text;
}

}  // namespace kiv::test

#endif  // KIV_TESTS_RECORDS_H
