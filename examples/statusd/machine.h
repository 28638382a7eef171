#ifndef STATUSD_MACHINE_H
#define STATUSD_MACHINE_H

#include <kiv/utils.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "history.h"

/// Running totals of an interface or a disk: bytes in and out, and packets or operations in and out.
struct Counters {
  std::string name;
  std::array<std::uint64_t, 4> totals;
};

/// What the kernel counts, at one moment. What could not be read is empty.
struct MachineSample {
  std::chrono::steady_clock::time_point at = std::chrono::steady_clock::now();
  std::optional<double> busyPercent;  ///< Since the sample before, of all processors together.
  std::optional<kiv::utils::SystemStats::LoadAvg> load;
  std::optional<double> uptimeSeconds;
  std::optional<kiv::utils::SystemStats::MemInfo> memory;
  std::vector<Counters> interfaces;
  std::vector<Counters> disks;  ///< Those that have done anything.
};

/// Reads a sample. For one thread only, since the use of the processors is counted from call to call.
MachineSample ReadMachine();

/// The last samples, and what lies between them.
class Machine {
 public:
  void Add(const MachineSample& sample);

  /// Returns members of a JSON object: "machine", "traffic" and "disks". Histories are of the last 60 samples, oldest
  /// first; rates are per second. What is not known is null.
  std::string ToJson() const;

 private:
  struct Rates {
    std::string name;
    std::array<std::optional<double>, 4> perSecond;
    std::array<History, 2> history;  // Of the bytes.
  };
  struct Table {
    std::vector<Rates> rows;
    std::size_t total = 0;
  };

  static void Advance(Table& table, const std::vector<Counters>& before, const std::vector<Counters>& now,
                      double seconds);
  static std::string JsonTable(const Table& table, const std::array<const char*, 4>& names);
  static std::string JsonHistory(const History& history, int decimals);

  MachineSample mLast;
  History mBusy;
  History mMemoryUsed;
  Table mTraffic;
  Table mDisks;
};

#endif  // STATUSD_MACHINE_H
