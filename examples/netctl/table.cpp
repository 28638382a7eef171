#include "table.h"

#include <algorithm>

#include "common/json.h"
#include "common/printable.h"

namespace {

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : ",") + word;
  }
  return text;
}

struct CellText {
  std::string operator()(const std::string& text) const { return text.empty() ? "-" : Printable(text); }
  std::string operator()(std::uint32_t number) const { return std::to_string(number); }
  std::string operator()(bool yes) const { return yes ? "yes" : "no"; }
  std::string operator()(const std::vector<std::string>& words) const { return (*this)(Join(words)); }
};

struct CellJson {
  std::string operator()(const std::string& text) const { return JsonString(text); }
  std::string operator()(std::uint32_t number) const { return std::to_string(number); }
  std::string operator()(bool yes) const { return yes ? "true" : "false"; }
  std::string operator()(const std::vector<std::string>& words) const {
    std::vector<std::string> quoted;
    std::transform(words.begin(), words.end(), std::back_inserter(quoted), JsonString);
    return "[" + Join(quoted) + "]";
  }
};

}  // namespace

std::string ToText(const Table& table) {
  std::vector<std::vector<std::string>> lines{table.columns};
  for (const auto& row : table.rows) {
    std::vector<std::string>& line = lines.emplace_back();
    for (const Cell& cell : row) {
      line.push_back(std::visit(CellText{}, cell));
    }
  }
  std::vector<std::size_t> widths(table.columns.size(), 0);
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      widths[i] = std::max(widths[i], Width(line[i]));
    }
  }
  std::string text;
  for (const auto& line : lines) {
    for (std::size_t i = 0; i + 1 < line.size(); ++i) {
      text.append(line[i]).append(widths[i] + 2 - Width(line[i]), ' ');
    }
    text += line.back() + "\n";
  }
  return text;
}

std::string ToJson(const Table& table) {
  std::string json;
  for (const auto& row : table.rows) {
    json += json.empty() ? "" : ",\n";
    for (std::size_t i = 0; i < row.size(); ++i) {
      json += (i == 0 ? "{\"" : ",\"") + table.columns[i] + "\":" + std::visit(CellJson{}, row[i]);
    }
    json += "}";
  }
  return "[" + json + "]\n";
}
