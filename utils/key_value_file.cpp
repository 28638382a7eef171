#include <kiv/utils.h>

#include "internal/lines.h"

namespace kiv::utils {
namespace {

void AddLine(StringView line, StringView separator, bool allowEmptyValues, std::map<std::string, std::string>& out) {
  auto [key, value] = SplitKeyValue(line, separator);
  if (key.empty() || (value.empty() && !allowEmptyValues)) {
    return;
  }
  out[key] = std::move(value);
}

}  // namespace

bool Parser::ReadKeyValueFile(const char* path, std::map<std::string, std::string>& out, const char* separator,
                              bool allowEmptyValues) {
  return internal::ForEachLine(path, [&](const std::string& line) {
    AddLine(line, separator, allowEmptyValues, out);
    return true;
  });
}

}  // namespace kiv::utils
