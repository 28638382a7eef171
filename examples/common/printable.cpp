#include "common/printable.h"

#include <algorithm>

#include "common/utf8.h"

std::string Printable(const std::string& text) {
  std::string printable;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = Utf8Length(text, i);
    if (length == 0 || IsControlAt(text, i)) {
      printable += '?';
    } else {
      printable.append(text, i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return printable;
}

std::size_t Width(const std::string& text) {
  const auto isContinuation = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; };
  return text.size() - static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isContinuation));
}

std::string Quote(const std::string& text) { return "\"" + text + "\""; }
