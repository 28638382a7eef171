#include "utils/split.h"

#include <cstring>
#include <string_view>

namespace kiv::utils {
namespace {

bool IsSpace(char byte) {
  // Deliberate: strchr also finds the terminator of its set, so a NUL byte counts as whitespace, and lines cut
  // out of NUL-padded buffers come out clean.
  return std::strchr(" \f\n\r\t\v", byte) != nullptr;
}

std::string_view Bytes(StringView text) { return {text.Data(), text.Size()}; }

std::string CopyTrimmed(std::string_view bytes) { return ToString(Trim({bytes.data(), bytes.size()})); }

}  // namespace

StringView Trim(StringView text) {
  const char* first = text.Data();
  std::size_t size = text.Size();
  while (size != 0 && IsSpace(*first)) {
    ++first;
    --size;
  }
  if (size == 0) {
    return {};
  }
  while (IsSpace(first[size - 1])) {
    --size;
  }
  return {first, size};
}

std::string ToString(StringView text) { return std::string(Bytes(text)); }

std::vector<std::string> Split(StringView text, StringView delimiter) {
  std::vector<std::string> fields;
  if (delimiter.Empty()) {
    return fields;
  }
  const std::string_view bytes = Bytes(text);
  std::size_t begin = 0;
  for (std::size_t end = bytes.find(Bytes(delimiter)); end != std::string_view::npos;
       end = bytes.find(Bytes(delimiter), begin)) {
    fields.emplace_back(bytes.substr(begin, end - begin));
    begin = end + delimiter.Size();
  }
  fields.emplace_back(bytes.substr(begin));
  return fields;
}

std::vector<std::string> SplitColumns(StringView line) {
  std::vector<std::string> columns;
  for (std::string& piece : Split(line, " ")) {
    if (!piece.empty()) {
      columns.push_back(std::move(piece));
    }
  }
  return columns;
}

std::pair<std::string, std::string> SplitKeyValue(StringView text, StringView separator) {
  const std::string_view line = Bytes(Trim(text));
  if (line.empty() || separator.Empty()) {
    return {};
  }
  const std::size_t at = line.find(Bytes(separator));
  if (at == std::string_view::npos) {
    return {};
  }
  return {CopyTrimmed(line.substr(0, at)), CopyTrimmed(line.substr(at + separator.Size()))};
}

}  // namespace kiv::utils
