#include <kiv/utils.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/check.h"
#include "utils/ini_file.h"

namespace kiv::utils {
namespace {

using fuzz::Check;
using Values = std::map<std::string, std::string>;
using Pair = std::pair<std::string, std::string>;

// The readers take paths: one file in memory for all inputs, each in its turn.
class File {
 public:
  File() : mFd(::memfd_create("settings", MFD_CLOEXEC)), mPath("/proc/self/fd/" + std::to_string(mFd)) {}

  const char* Holding(const std::string& text) const {
    const auto size = static_cast<ssize_t>(text.size());
    Check(::ftruncate(mFd, 0) == 0 && ::pwrite(mFd, text.data(), text.size(), 0) == size, "the file takes the input");
    return mPath.c_str();
  }

 private:
  int mFd;
  std::string mPath;
};

std::string Stripped(std::string text) {
  const std::string spaces(" \f\n\r\t\v\0", 7);
  text.erase(text.find_last_not_of(spaces) + 1);
  return text.erase(0, text.find_first_not_of(spaces));
}

// A line without the separator has no key.
Pair Halves(const std::string& line, const std::string& separator) {
  const std::string stripped = Stripped(line);
  const std::size_t at = separator.empty() ? std::string::npos : stripped.find(separator);
  if (at == std::string::npos) {
    return {};
  }
  return {Stripped(stripped.substr(0, at)), Stripped(stripped.substr(at + separator.size()))};
}

// The rules of an INI file, told again in few words.
bool ReadIni(const std::string& text, IniSections& sections) {
  std::istringstream lines(text);
  std::string section;
  for (std::string line; std::getline(lines, line);) {
    line = Stripped(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') {
      continue;
    }
    if (line[0] != '[') {
      const Pair pair = Halves(line, "=");
      if (!pair.first.empty()) {
        sections[section][pair.first] = pair.second;
      }
      continue;
    }
    const std::size_t end = line.find(']');
    section = Stripped(line.substr(1, end == std::string::npos ? 0 : end - 1));
    if (section.empty()) {
      return false;
    }
    sections.insert({section, {}});
  }
  return true;
}

// A file that reads as these sections do.
std::string Printed(const IniSections& sections) {
  std::string text;
  for (const auto& [name, values] : sections) {
    text += name.empty() ? "" : "[" + name + "]\n";
    for (const auto& [key, value] : values) {
      text += key + "=" + value + "\n";
    }
  }
  return text;
}

// The parser without a file: each line ends where its memory ends.
bool ReadLines(const std::string& text, IniSections& sections) {
  IniParser parser(sections);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<char> exact(line.begin(), line.end());
    if (!parser.AddLine(StringView(exact.data(), exact.size()))) {
      return false;
    }
  }
  return true;
}

void CheckIni(const File& file, const std::string& text) {
  IniSections expected;
  const bool whole = ReadIni(text, expected);
  IniSections sections;
  Check(ParseIniFile(file.Holding(text), sections) == whole, "only a header without a name is refused");
  Check(sections == expected, "sections, keys and values are those of the lines before any such header");
  IniSections alone;
  Check(ReadLines(text, alone) == whole && alone == expected, "the lines alone say the same");
  IniSections twice = sections;
  Check(ParseIniFile(file.Holding(text), twice) == whole && twice == sections, "reading it again changes nothing");
  IniSections again;
  Check(ParseIniFile(file.Holding(Printed(sections)), again) && again == sections, "what is printed reads the same");
}

// The first line of the input is the separator.
void CheckKeyValue(const File& file, const std::string& input) {
  const std::size_t end = input.find('\n');
  const std::string separator = input.substr(0, std::min(end, input.find('\0')));
  const std::string text = end == std::string::npos ? "" : input.substr(end + 1);
  for (const bool allowEmptyValues : {false, true}) {
    Values expected{{"key", "from before"}};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      const Pair pair = Halves(line, separator);
      if (!pair.first.empty() && (allowEmptyValues || !pair.second.empty())) {
        expected[pair.first] = pair.second;
      }
    }
    Values values{{"key", "from before"}};
    const bool whole = Parser::ReadKeyValueFile(file.Holding(text), values, separator.c_str(), allowEmptyValues);
    Check(whole, "a file that can be read is read to its end");
    Check(values == expected, "keys and values are those of the lines");
  }
}

}  // namespace
}  // namespace kiv::utils

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kiv::utils::File file;
  const std::string input(reinterpret_cast<const char*>(data), size);
  kiv::utils::CheckIni(file, input);
  kiv::utils::CheckKeyValue(file, input);
  return 0;
}
