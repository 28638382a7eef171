#include "common/printable.h"

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

std::string Quote(const std::string& text) { return "\"" + text + "\""; }
