#include "net/kernel_tables.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"

namespace kiv::net {
namespace {

using fuzz::Check;

constexpr std::string_view kSpaces = " \f\n\r\t\v";

unsigned DigitValue(char digit) {
  const auto byte = static_cast<unsigned char>(digit);
  return std::isdigit(byte) != 0 ? byte - '0' : static_cast<unsigned>(std::tolower(byte) - 'a') + 10;
}

bool IsHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// The value of a text that is a hexadecimal number as a whole, by arithmetic; 0 for any other.
std::uint32_t HexValue(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kSpaces), text.size()));
  const bool negative = !text.empty() && text[0] == '-';
  if (negative || (!text.empty() && text[0] == '+')) {
    text.remove_prefix(1);
  }
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  for (const char c : text) {
    if (!IsHexDigit(c)) {
      return 0;
    }
    magnitude = std::min<std::uint64_t>(magnitude * 16 + DigitValue(c), std::uint64_t{1} << 32);
  }
  if (magnitude > UINT32_MAX) {
    return UINT32_MAX;
  }
  return static_cast<std::uint32_t>(negative ? 0 - magnitude : magnitude);
}

void CheckHex(const std::string& text) {
  Check(ParseHex(text.c_str()) == HexValue(text.c_str()), "a hexadecimal number, or 0");
}

std::vector<std::string> Columns(std::string_view line, char delimiter) {
  std::vector<std::string> columns(1);
  for (const char c : line) {
    if (c == delimiter) {
      columns.emplace_back();
    } else {
      columns.back() += c;
    }
  }
  return columns;
}

bool operator==(const RoutingTableEntry& a, const RoutingTableEntry& b) {
  return a.iface == b.iface && a.destination == b.destination && a.gateway == b.gateway && a.mask == b.mask &&
         a.metric == b.metric && a.flags == b.flags;
}

bool operator==(const ArpEntry& a, const ArpEntry& b) {
  return a.iface == b.iface && a.ip == b.ip && a.mac == b.mac && a.state == b.state;
}

// The line as the kernel prints it.
std::string Printed(const RoutingTableEntry& route) {
  char columns[128];
  (void)std::snprintf(columns, sizeof columns, "\t%08X\t%08X\t%04X\t0\t0\t%u\t%08X\t0\t0\t0", route.destination,
                      route.gateway, route.flags, route.metric, route.mask);
  return route.iface + columns;
}

void CheckRouteLine(const std::string& line) {
  const RoutingTableEntry untouched{"i", 1, 2, 3, 4, 5};
  RoutingTableEntry route = untouched;
  const bool read = ParseRouteLine(line, route);
  const std::vector<std::string> columns = Columns(line, '\t');
  const bool tellsSomething =
      columns.size() >= 8 && (!columns[0].empty() || HexValue(columns[1].c_str()) != 0 ||
                              HexValue(columns[2].c_str()) != 0 || HexValue(columns[7].c_str()) != 0);
  Check(read == tellsSomething, "eight columns that tell something are a route, and nothing else");
  if (!read) {
    Check(route == untouched, "what is no route leaves the record alone");
    return;
  }
  Check(route.iface == columns[0], "interface of a route is its first column");
  Check(route.destination == HexValue(columns[1].c_str()), "destination of a route is its second column");
  Check(route.gateway == HexValue(columns[2].c_str()), "gateway of a route is its third column");
  Check(route.mask == HexValue(columns[7].c_str()), "mask of a route is its eighth column");
  RoutingTableEntry again;
  Check(ParseRouteLine(Printed(route), again) && again == route, "a route that is printed reads the same");
}

std::string Printed(const ArpEntry& entry) {
  const unsigned flags = entry.state == ArpState::Unknown ? 0 : 1U << static_cast<unsigned>(entry.state);
  char columns[64];
  (void)std::snprintf(columns, sizeof columns, "%-16s 0x1         0x%-10x", NtoIP(entry.ip).c_str(), flags);
  return columns + entry.mac + "     *        " + entry.iface;
}

bool IsMac(const std::string& text) {
  bool isMac = text.size() == 17;
  for (std::size_t i = 0; isMac && i < text.size(); ++i) {
    isMac = i % 3 == 2 ? text[i] == ':' : IsHexDigit(text[i]);
  }
  return isMac;
}

bool IsIp(const std::string& text) {
  in_addr address{};
  return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

void CheckArpLine(const std::string& line) {
  const ArpEntry untouched{"i", 1, "m", ArpState::Probe};
  ArpEntry entry = untouched;
  const bool read = ParseArpLine(line, entry);
  std::vector<std::string> columns;
  for (const std::string& column : Columns(line, ' ')) {
    if (!column.empty()) {
      columns.push_back(column);
    }
  }
  Check(read == (columns.size() >= 6 && IsIp(columns[0]) && IsMac(columns[3])),
        "six columns with both addresses are a neighbour, and nothing else");
  if (!read) {
    Check(entry == untouched, "what is no neighbour leaves the record alone");
    return;
  }
  const std::string ip = columns[0].substr(0, columns[0].find('\0'));
  Check(NtoIP(entry.ip) == ip, "address of a neighbour is its first column");
  Check(entry.mac == columns[3] && entry.iface == columns[5], "columns of a neighbour");
  Check(entry.state <= ArpState::Unknown, "a neighbour's state has a name");
  if (entry.state != ArpState::Unknown) {
    Check(HexValue(columns[2]) == 1U << static_cast<unsigned>(entry.state), "a neighbour's state is one bit");
  }
  ArpEntry again;
  Check(ParseArpLine(Printed(entry), again) && again == entry, "a neighbour that is printed reads the same");
}

}  // namespace
}  // namespace kiv::net

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  kiv::net::CheckHex(text);
  kiv::net::CheckRouteLine(text);
  kiv::net::CheckArpLine(text);
  return 0;
}
