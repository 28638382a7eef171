#include "utils/ini_file.h"

#include <cstring>

#include "internal/lines.h"
#include "utils/split.h"

namespace kiv::utils {

// `header` is trimmed and begins with the opening bracket.
bool IniParser::BeginSection(StringView header) {
  const char* const first = header.Data() + 1;
  const std::size_t size = header.Size() - 1;
  const void* const closing = std::memchr(first, ']', size);
  if (closing == nullptr) {
    return false;
  }
  const StringView name = Trim({first, static_cast<std::size_t>(static_cast<const char*>(closing) - first)});
  if (name.Empty()) {
    return false;
  }
  mSection = ToString(name);
  (void)mOut[mSection];  // A section without pairs is a section.
  return true;
}

bool IniParser::AddLine(StringView line) {
  const StringView trimmed = Trim(line);
  if (trimmed.Empty() || trimmed.Data()[0] == '#' || trimmed.Data()[0] == ';') {
    return true;
  }
  if (trimmed.Data()[0] == '[') {
    return BeginSection(trimmed);
  }
  auto [key, value] = SplitKeyValue(trimmed, "=");
  if (!key.empty()) {
    mOut[mSection][key] = std::move(value);
  }
  return true;
}

bool ParseIniFile(const char* path, IniSections& out) {
  IniParser parser(out);
  return internal::ForEachLine(path, [&parser](const std::string& line) { return parser.AddLine(line); });
}

}  // namespace kiv::utils
