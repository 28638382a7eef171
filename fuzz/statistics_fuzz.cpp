#include <kiv/utils.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "utils/disk_stats.h"
#include "utils/net_stats.h"
#include "utils/split.h"
#include "utils/system_stats.h"

namespace kiv::utils {
namespace {

using fuzz::Check;
using namespace std::string_view_literals;

constexpr std::string_view kSpaces = " \f\n\r\t\v";
constexpr std::string_view kTrimmed = " \f\n\r\t\v\0"sv;

// Takes a number off the front of a text, by arithmetic: whitespace, a sign, digits. Returns whether there is one.
bool TakeNumber(std::string_view& text, std::uint64_t& number) {
  const std::size_t begin = std::min(text.find_first_not_of(kSpaces), text.size());
  const bool hasSign = begin < text.size() && (text[begin] == '-' || text[begin] == '+');
  std::size_t end = begin + (hasSign ? 1 : 0);
  const std::size_t digits = end;
  bool fits = true;
  std::uint64_t value = 0;
  for (; end < text.size() && text[end] >= '0' && text[end] <= '9'; ++end) {
    const auto digit = static_cast<std::uint64_t>(text[end] - '0');
    fits = fits && value <= (std::numeric_limits<std::uint64_t>::max() - digit) / 10;
    value = value * 10 + digit;
  }
  if (end == digits) {
    return false;
  }
  const bool isNegative = hasSign && text[begin] == '-';
  number = !fits ? std::numeric_limits<std::uint64_t>::max() : isNegative ? 0 - value : value;
  text.remove_prefix(end);
  return true;
}

std::vector<std::uint64_t> TakeNumbers(std::string_view text, std::size_t atMost) {
  text = text.substr(0, text.find('\0'));
  std::vector<std::uint64_t> numbers;
  for (std::uint64_t number = 0; numbers.size() < atMost && TakeNumber(text, number);) {
    numbers.push_back(number);
  }
  return numbers;
}

std::uint64_t NumberOf(std::string_view text) {
  const std::vector<std::uint64_t> numbers = TakeNumbers(text, 1);
  return numbers.empty() ? 0 : numbers[0];
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kTrimmed);
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(kTrimmed) - begin + 1);
}

std::vector<std::string_view> Pieces(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (std::size_t end = text.find(separator); end != std::string_view::npos; end = text.find(separator)) {
    pieces.push_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  pieces.push_back(text);
  return pieces;
}

using Counters = std::array<std::uint64_t, 8>;

Counters Of(const CpuTimes& t) { return {t.user, t.nice, t.system, t.idle, t.iowait, t.irq, t.softirq, t.steal}; }

CpuTimes Times(const Counters& c) { return {c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]}; }

Counters CheckCpuLine(const std::string& line) {
  const Counters untouched = {1, 2, 3, 4, 5, 6, 7, 8};
  CpuTimes times = Times(untouched);
  std::vector<std::uint64_t> numbers;
  if (line.size() >= 4 && line.compare(0, 4, "cpu ") == 0) {
    numbers = TakeNumbers(std::string_view(line).substr(4), 8);
  }
  const bool read = ParseCpuLine(line, times);
  Check(read == (numbers.size() >= 4), "four numbers behind \"cpu \" are a sample, and nothing else");
  Counters expected = untouched;
  if (read) {
    numbers.resize(8);
    std::copy(numbers.begin(), numbers.end(), expected.begin());
  }
  Check(Of(times) == expected, "counters are the first eight numbers, and 0 where there is none");
  return Of(times);
}

bool IsNear(double a, double b) {
  const double larger = std::max(std::max(a, -a), std::max(b, -b));
  return std::max(a - b, b - a) <= larger * 1e-9 + 1e-9;
}

// The differences one by one, where the library takes those of the sums.
void CheckUsage(const Counters& before, const Counters& now) {
  std::uint64_t busy = 0;
  std::uint64_t idle = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    (i == 3 || i == 4 ? idle : busy) += now[i] - before[i];
  }
  SystemStats::CpuUsage usage{1, 2, 3};
  const bool known = ComputeUsage(Times(before), Times(now), usage);
  Check(known == (busy + idle != 0), "there is a usage when time has passed");
  if (!known) {
    Check(usage.user == 1 && usage.system == 2 && usage.idle == 3, "no usage leaves the record alone");
    return;
  }
  const double share = static_cast<double>(busy) / static_cast<double>(busy + idle) * 100;
  Check(IsNear(usage.user, share * 0.7) && IsNear(usage.system, share * 0.3), "busy time is split 70 to 30");
  Check(IsNear(usage.idle, 100 - share), "the rest is idle");
}

// Where scanf(3) and strtod(3) see the same numbers: not in "1e", of which only the former takes the letter, too.
bool IsPlain(const std::string& line) { return line.find_first_not_of("0123456789. ") == std::string::npos; }

void CheckLoadAvg(const std::string& line) {
  SystemStats::LoadAvg load{1, 2, 3};
  const bool read = ParseLoadAvg(line, load);
  std::array<double, 3> numbers{1, 2, 3};
  std::size_t count = 0;
  const char* at = line.c_str();
  for (char* end = nullptr; count < numbers.size(); ++count, at = end) {
    const double number = std::strtod(at, &end);
    if (end == at) {
      break;
    }
    numbers[count] = number;
  }
  Check(!IsPlain(line) || read == (count == numbers.size()), "three numbers are a load, and nothing else");
  if (!read) {
    Check(load.one == 1 && load.five == 2 && load.fifteen == 3, "no load leaves the record alone");
  } else if (IsPlain(line)) {
    Check(load.one == numbers[0] && load.five == numbers[1] && load.fifteen == numbers[2], "the load, in its order");
  }
}

void CheckUptime(const std::string& line) {
  double seconds = -77;
  const bool read = ParseUptime(line, seconds);
  Check(read || seconds == -77, "no uptime leaves the number alone");
  const std::size_t begin = std::min(line.find_first_not_of(kSpaces), line.size());
  const bool beginsWithADigit = begin < line.size() && line[begin] >= '0' && line[begin] <= '9';
  Check(read || !beginsWithADigit, "what begins with a digit is an uptime");
  Check(!read || begin < line.size(), "blanks are no uptime");
}

void CheckMemInfo(const std::string& text) {
  std::array<std::uint64_t, 3> expected{};
  for (const std::string_view line : Pieces(text, '\n')) {
    const std::string_view trimmed = Trimmed(line);
    const std::size_t colon = trimmed.find(':');
    const std::string_view names[] = {"MemTotal", "MemFree", "MemAvailable"};
    for (std::size_t i = 0; colon != std::string_view::npos && i < expected.size(); ++i) {
      if (Trimmed(trimmed.substr(0, colon)).substr(0, names[i].size()) == names[i]) {
        expected[i] = NumberOf(Trimmed(trimmed.substr(colon + 1)));
      }
    }
  }
  SystemStats::MemInfo info{1, 2, 3};
  Check(ParseMemInfo(text, info) == (expected[0] != 0), "memory is known when the total is");
  Check(info.total == expected[0] && info.free == expected[1] && info.available == expected[2], "memory");
}

void CheckNetDevLine(const std::string& line) {
  const std::size_t colon = std::min(line.find(':'), line.size());
  const std::string_view name = Trimmed(std::string_view(line).substr(0, colon));
  const std::vector<std::uint64_t> numbers =
      colon == line.size() ? std::vector<std::uint64_t>() : TakeNumbers(std::string_view(line).substr(colon + 1), 10);
  NetStats::IfaceStats stats{"i", 1, 2, 3, 4};
  const bool read = ParseNetDevLine(line, stats);
  Check(read == (!name.empty() && numbers.size() == 10), "a name and ten numbers are an interface, and nothing else");
  if (!read) {
    Check(stats.name == "i" && stats.rxBytes == 1 && stats.txPackets == 4, "no interface leaves the record alone");
    return;
  }
  Check(stats.name == name, "name of an interface");
  Check(stats.rxBytes == numbers[0] && stats.rxPackets == numbers[1], "what an interface received");
  Check(stats.txBytes == numbers[8] && stats.txPackets == numbers[9], "what an interface sent");
}

void CheckDiskLine(const std::string& line) {
  std::vector<std::string_view> fields = Pieces(Trimmed(line), ' ');
  fields.erase(std::remove(fields.begin(), fields.end(), ""), fields.end());
  DiskStats::DeviceStats stats{"d", 1, 2, 3, 4};
  const bool read = ParseDiskStatsLine(line, stats);
  Check(read == (fields.size() >= 14), "14 fields are a disk, and nothing else");
  if (!read) {
    Check(stats.name == "d" && stats.readsCompleted == 1 && stats.sectorsWritten == 4,
          "no disk leaves the record alone");
    return;
  }
  Check(stats.name == fields[2], "name of a disk");
  Check(stats.readsCompleted == NumberOf(fields[3]) && stats.sectorsRead == NumberOf(fields[5]), "what a disk read");
  Check(stats.writesCompleted == NumberOf(fields[7]) && stats.sectorsWritten == NumberOf(fields[9]),
        "what a disk wrote");
}

}  // namespace
}  // namespace kiv::utils

// The whole input is a file, each of its lines a line of every table, and neighbouring samples an interval.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  kiv::utils::CheckMemInfo(text);
  kiv::utils::Counters before{};
  for (const std::string_view piece : kiv::utils::Pieces(text, '\n')) {
    const std::string line(piece);
    const kiv::utils::Counters now = kiv::utils::CheckCpuLine(line);
    kiv::utils::CheckUsage(before, now);
    before = now;
    kiv::utils::CheckLoadAvg(line);
    kiv::utils::CheckUptime(line);
    kiv::utils::CheckNetDevLine(line);
    kiv::utils::CheckDiskLine(line);
  }
  return 0;
}
