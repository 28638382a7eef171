#include "machine.h"

#include <algorithm>
#include <utility>

#include "common/json.h"

namespace {

using kiv::utils::DiskStats;
using kiv::utils::NetStats;
using kiv::utils::SystemStats;

constexpr std::size_t kMaxRows = 16;  // An answer stays below 256 KiB, whatever the machine has.
constexpr std::uint64_t kSectorSize = 512;

template <typename Value>
std::optional<Value> Read(bool (*read)(Value&)) {
  Value value{};
  return read(value) ? std::optional<Value>(value) : std::nullopt;
}

std::vector<Counters> ReadInterfaces() {
  std::vector<NetStats::IfaceStats> all;
  (void)NetStats::GetAll(all);  // None is as good as no answer.
  std::vector<Counters> counters;
  for (NetStats::IfaceStats& one : all) {
    counters.push_back({std::move(one.name), {one.rxBytes, one.txBytes, one.rxPackets, one.txPackets}});
  }
  return counters;
}

// Leaves out those that have done nothing: most machines have a dozen loop and RAM devices that nobody uses.
std::vector<Counters> ReadDisks() {
  std::vector<DiskStats::DeviceStats> all;
  (void)DiskStats::GetAll(all);  // None is as good as no answer.
  std::vector<Counters> counters;
  for (DiskStats::DeviceStats& one : all) {
    if (one.readsCompleted != 0 || one.writesCompleted != 0) {
      counters.push_back(
          {std::move(one.name),
           {one.sectorsRead * kSectorSize, one.sectorsWritten * kSectorSize, one.readsCompleted, one.writesCompleted}});
    }
  }
  return counters;
}

// What is not available counts as used; kernels before 3.14 do not estimate that, and what is not free counts there.
double UsedPercent(const SystemStats::MemInfo& memory) {
  const std::uint64_t rest = memory.available != 0 ? memory.available : memory.free;
  return 100.0 - 100.0 * static_cast<double>(rest) / static_cast<double>(memory.total);
}

template <typename Rows>
auto FindByName(Rows& rows, const std::string& name) {
  return std::find_if(rows.begin(), rows.end(), [&name](const auto& row) { return row.name == name; });
}

// Totals that have gone backwards began again, and say nothing of the time between.
std::optional<double> Rate(std::uint64_t before, std::uint64_t now, double seconds) {
  if (now < before || seconds <= 0) {
    return std::nullopt;
  }
  return static_cast<double>(now - before) / seconds;
}

// Of more than there is room for, those that moved most since they began to count.
std::vector<Counters> Choose(std::vector<Counters> all) {
  const auto isBusier = [](const Counters& a, const Counters& b) {
    return a.totals[0] + a.totals[1] > b.totals[0] + b.totals[1];
  };
  if (all.size() > kMaxRows) {
    std::partial_sort(all.begin(), all.begin() + kMaxRows, all.end(), isBusier);
    all.resize(kMaxRows);
  }
  return all;
}

std::string JsonLoad(const std::optional<SystemStats::LoadAvg>& load) {
  return load ? "[" + JsonNumber(load->one, 2) + "," + JsonNumber(load->five, 2) + "," + JsonNumber(load->fifteen, 2) +
                    "]"
              : "null";
}

std::string JsonMemory(const std::optional<SystemStats::MemInfo>& memory) {
  return memory ? "{\"total_kib\":" + std::to_string(memory->total) + ",\"free_kib\":" + std::to_string(memory->free) +
                      ",\"available_kib\":" + std::to_string(memory->available) +
                      ",\"used_percent\":" + JsonNumber(UsedPercent(*memory), 1) + "}"
                : "null";
}

}  // namespace

MachineSample ReadMachine() {
  MachineSample sample;
  const auto usage = Read<SystemStats::CpuUsage>(SystemStats::GetCpuUsage);
  if (usage && usage->idle >= 0 && usage->idle <= 100) {  // Outside, a counter has gone backwards.
    sample.busyPercent = 100 - usage->idle;
  }
  sample.load = Read<SystemStats::LoadAvg>(SystemStats::GetLoadAvg);
  sample.uptimeSeconds = Read<double>(SystemStats::GetUptime);
  sample.memory = Read<SystemStats::MemInfo>(SystemStats::GetMemory);
  sample.interfaces = ReadInterfaces();
  sample.disks = ReadDisks();
  return sample;
}

void Machine::Add(const MachineSample& sample) {
  const double seconds = std::chrono::duration<double>(sample.at - mLast.at).count();
  Append(mBusy, sample.busyPercent);
  Append(mMemoryUsed, sample.memory ? std::optional<double>(UsedPercent(*sample.memory)) : std::nullopt);
  Advance(mTraffic, mLast.interfaces, sample.interfaces, seconds);
  Advance(mDisks, mLast.disks, sample.disks, seconds);
  mLast = sample;
}

void Machine::Advance(Table& table, const std::vector<Counters>& before, const std::vector<Counters>& now,
                      double seconds) {
  std::vector<Rates> rows;
  for (const Counters& counters : Choose(now)) {
    const auto known = FindByName(table.rows, counters.name);
    Rates row = known != table.rows.end() ? std::move(*known) : Rates();
    row.name = counters.name;
    const auto last = FindByName(before, row.name);
    for (std::size_t k = 0; k < row.perSecond.size(); ++k) {
      row.perSecond[k] = last != before.end() ? Rate(last->totals[k], counters.totals[k], seconds) : std::nullopt;
    }
    for (std::size_t k = 0; k < row.history.size(); ++k) {
      Append(row.history[k], row.perSecond[k]);
    }
    rows.push_back(std::move(row));
  }
  table.rows = std::move(rows);
  table.total = now.size();
}

std::string Machine::JsonHistory(const History& history, int decimals) {
  return JsonList(history, [decimals](const std::optional<double>& value) { return JsonNumber(value, decimals); });
}

std::string Machine::JsonTable(const Table& table, const std::array<const char*, 4>& names) {
  const auto writeRow = [&names](const Rates& row) {
    std::string json = "{\"name\":" + JsonString(row.name);
    for (std::size_t k = 0; k < names.size(); ++k) {
      json += ",\"" + std::string(names[k]) + "\":" + JsonNumber(row.perSecond[k], 0);
    }
    return json + ",\"history\":{\"" + names[0] + "\":" + JsonHistory(row.history[0], 0) + ",\"" + names[1] +
           "\":" + JsonHistory(row.history[1], 0) + "}}";
  };
  return "{\"total\":" + std::to_string(table.total) + ",\"rows\":" + JsonList(table.rows, writeRow) + "}";
}

std::string Machine::ToJson() const {
  return "\"machine\":{\"uptime_s\":" + JsonNumber(mLast.uptimeSeconds, 0) + ",\"load\":" + JsonLoad(mLast.load) +
         ",\"busy_percent\":" + JsonNumber(mLast.busyPercent, 1) + ",\"memory\":" + JsonMemory(mLast.memory) +
         ",\"history\":{\"busy_percent\":" + JsonHistory(mBusy, 1) +
         ",\"memory_percent\":" + JsonHistory(mMemoryUsed, 1) +
         "}},\"traffic\":" + JsonTable(mTraffic, {"rx_bytes", "tx_bytes", "rx_packets", "tx_packets"}) +
         ",\"disks\":" + JsonTable(mDisks, {"read_bytes", "written_bytes", "reads", "writes"});
}
