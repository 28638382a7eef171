#include "settings_file.h"

#include <kiv/utils.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>

#include "common/printable.h"

namespace {

constexpr std::size_t kMaxFileSize = 65536;
const char kBlanks[] = " \t\r\f\v";

// Returns why the file cannot be read, or nothing.
std::string ReadFile(const std::string& path, std::string& text) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  text.resize(kMaxFileSize);
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  // The end must have been met: a directory fails, and a device that never ends does not get there.
  return file.eof() ? "" : errno != 0 ? std::strerror(errno) : "it has 64 KiB or more";
}

std::string Trimmed(const std::string& line) {
  const std::size_t first = line.find_first_not_of(kBlanks);
  return first == std::string::npos ? "" : line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

// Fills in section, key and value of a line that is not empty. Returns what is wrong with it, or nothing.
std::string Parse(const std::string& text, SettingsLine& line) {
  if (text.front() == '[') {
    line.section = text.back() == ']' ? Trimmed(text.substr(1, text.size() - 2)) : "";
    return line.section.empty() ? "expected \"[section]\"" : "";
  }
  const auto [key, value] = kiv::utils::SplitKeyValue(text, "=");
  line.key = key;
  line.value = value;
  return key.empty() ? "expected \"key = value\"" : "";
}

}  // namespace

bool ReadSettingsFile(const std::string& path, std::vector<SettingsLine>& out, std::string& error) {
  std::string content;
  const std::string failure = ReadFile(path, content);
  if (!failure.empty()) {
    error = "cannot read the settings file " + Quote(path) + ": " + failure;
    return false;
  }
  SettingsLine line{};
  for (const std::string& untrimmed : kiv::utils::Split(content, "\n")) {
    ++line.number;
    const std::string text = Trimmed(untrimmed);
    if (text.empty() || text.front() == '#' || text.front() == ';') {
      continue;
    }
    line.key.clear();
    line.value.clear();
    const std::string wrong = Parse(text, line);
    if (!wrong.empty()) {
      error = Place(path, line.number) + wrong;
      return false;
    }
    out.push_back(line);
  }
  return true;
}

std::string Place(const std::string& path, int line) { return path + ":" + std::to_string(line) + ": "; }
