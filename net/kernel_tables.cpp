#include "net/kernel_tables.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "internal/table.h"
#include "utils/split.h"

namespace kiv::net {
namespace {

constexpr std::size_t kArpColumns = 6;
constexpr std::size_t kRouteColumns = 8;
constexpr std::size_t kMacLength = 17;

// strtoul with the device's 32-bit long on every architecture: a number that does not fit becomes the largest one.
std::uint32_t ToNumber(const char* text, char** end, int base) {
  const unsigned long long wide = std::strtoull(text, end, base);
  const bool negative = text[std::strspn(text, " \f\n\r\t\v")] == '-';
  const unsigned long long magnitude = negative ? 0 - wide : wide;
  return magnitude > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(wide);
}

bool IsMac(const std::string& text) {
  if (text.size() != kMacLength) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i % 3 == 2 ? text[i] != ':' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) {
      return false;
    }
  }
  return true;
}

// Deliberate: exactly one bit, or Unknown. The column holds flags and not a state; two of them together (0x6 of a
// permanent entry) name no one state, and callers see that instead of a guess.
ArpState ToState(std::uint32_t flags) {
  switch (flags) {
    case 0x01:
      return ArpState::Incomplete;
    case 0x02:
      return ArpState::Reachable;
    case 0x04:
      return ArpState::Stale;
    case 0x08:
      return ArpState::Delay;
    case 0x10:
      return ArpState::Probe;
    case 0x20:
      return ArpState::Failed;
    case 0x40:
      return ArpState::NoArp;
    case 0x80:
      return ArpState::Permanent;
    default:
      return ArpState::Unknown;
  }
}

ArpState ParseState(const std::string& text) {
  if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) {
    return ArpState::Unknown;
  }
  char* end = nullptr;
  const std::uint32_t flags = ToNumber(text.c_str(), &end, 16);
  return end == text.c_str() + text.size() ? ToState(flags) : ArpState::Unknown;
}

}  // namespace

bool ParseArpLine(utils::StringView line, ArpEntry& entry) {
  std::vector<std::string> columns = utils::SplitColumns(line);
  if (columns.size() < kArpColumns) {
    return false;
  }
  std::uint32_t ip = 0;
  if (!IPtoN(columns[0], ip) || !IsMac(columns[3])) {
    return false;
  }
  entry.iface = std::move(columns[5]);
  entry.ip = ip;
  entry.mac = std::move(columns[3]);
  entry.state = ParseState(columns[2]);
  return true;
}

std::vector<ArpEntry> GetArpTable() {
  std::vector<ArpEntry> entries;
  internal::ReadTable("/proc/net/arp", 1, ParseArpLine, entries);
  return entries;
}

std::uint32_t ParseHex(const char* text) {
  if (text == nullptr) {
    return 0;
  }
  char* end = nullptr;
  const std::uint32_t value = ToNumber(text, &end, 16);
  return end != text && *end == '\0' ? value : 0;
}

bool ParseRouteLine(utils::StringView line, RoutingTableEntry& entry) {
  std::vector<std::string> columns = utils::Split(line, "\t");
  if (columns.size() < kRouteColumns) {
    return false;
  }
  RoutingTableEntry route;
  route.iface = std::move(columns[0]);
  route.destination = ParseHex(columns[1].c_str());
  route.gateway = ParseHex(columns[2].c_str());
  route.flags = ToNumber(columns[3].c_str(), nullptr, 16);
  route.mask = ParseHex(columns[7].c_str());
  route.metric = ToNumber(columns[6].c_str(), nullptr, 10);
  if (route.destination == 0 && route.gateway == 0 && route.mask == 0 && route.iface.empty()) {
    return false;
  }
  entry = std::move(route);
  return true;
}

std::vector<RoutingTableEntry> GetRoutingTable() {
  std::vector<RoutingTableEntry> entries;
  internal::ReadTable("/proc/net/route", 1, ParseRouteLine, entries);
  return entries;
}

}  // namespace kiv::net
