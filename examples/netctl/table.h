#ifndef NETCTL_TABLE_H
#define NETCTL_TABLE_H

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

/// One value of a record; a list holds words without blanks.
using Cell = std::variant<std::string, std::uint32_t, bool, std::vector<std::string>>;

/// Records of one kind, each with a cell for every column.
struct Table {
  std::vector<std::string> columns;
  std::vector<std::vector<Cell>> rows;
};

/// Returns aligned columns under a heading, for people. What is empty shows as "-".
std::string ToText(const Table& table);

/// Returns an array of objects, for programs: valid JSON in UTF-8, with U+FFFD for every byte that is not UTF-8.
std::string ToJson(const Table& table);

#endif  // NETCTL_TABLE_H
