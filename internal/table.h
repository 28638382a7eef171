#ifndef KIV_INTERNAL_TABLE_H
#define KIV_INTERNAL_TABLE_H

#include <string>
#include <utility>
#include <vector>

#include "internal/lines.h"

namespace kiv::internal {

/// Hands the lines of the file `path`, but for the first `headings` of them, to `parse`, and appends to `records` each
/// record that it fills and accepts. Adds nothing when the file cannot be opened.
template <typename Record, typename Parse>
void ReadTable(const char* path, int headings, Parse parse, std::vector<Record>& records) {
  int number = 0;
  // A table that breaks off is as good as a short one.
  (void)ForEachLine(path, [&](const std::string& line) {
    Record record;
    if (++number > headings && parse(line, record)) {
      records.push_back(std::move(record));
    }
    return true;
  });
}

/// Moves the first record of exactly this name into `out`. Returns false, with `out` untouched, when there is none.
template <typename Record>
bool TakeByName(std::vector<Record>& records, const std::string& name, Record& out) {
  for (Record& record : records) {
    if (record.name == name) {
      out = std::move(record);
      return true;
    }
  }
  return false;
}

}  // namespace kiv::internal

#endif  // KIV_INTERNAL_TABLE_H
