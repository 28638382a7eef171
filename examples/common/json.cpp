#include "common/json.h"

#include <cstdio>

#include "common/utf8.h"

namespace {

// The escape of the character at `at`, whose code point is that of its last byte: U+0000 to U+009F.
std::string Escape(const std::string& text, std::size_t last) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(static_cast<unsigned char>(text[last])));
  return escape;
}

}  // namespace

std::string JsonString(const std::string& text) {
  std::string json = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = Utf8Length(text, i);
    if (length == 0) {
      json += "\\ufffd";
    } else if (text[i] == '"' || text[i] == '\\' || IsControlAt(text, i)) {
      json += Escape(text, i + length - 1);
    } else {
      json.append(text, i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return json + "\"";
}

std::string JsonNumber(const std::optional<double>& number, int decimals) {
  char text[340];  // The largest double has 309 digits.
  std::snprintf(text, sizeof text, "%.*f", decimals, number.value_or(0));
  return number ? text : "null";
}
