#include "common/json.h"

#include <cstdio>

namespace {

// The length of the UTF-8 character at `at`, or 0 when there is none.
std::size_t Utf8Length(const std::string& text, std::size_t at) {
  const auto byte = [&text](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned int lead = byte(at);
  const unsigned int next = byte(at + 1);
  if (lead < 0x80) {
    return 1;
  }
  // Overlong forms, surrogates, and code points that do not exist.
  if (lead < 0xC2 || lead > 0xF4 || (lead == 0xE0 && next < 0xA0) || (lead == 0xED && next > 0x9F) ||
      (lead == 0xF0 && next < 0x90) || (lead == 0xF4 && next > 0x8F)) {
    return 0;
  }
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

}  // namespace

std::string JsonString(const std::string& text) {
  std::string json = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = Utf8Length(text, i);
    const auto byte = static_cast<unsigned char>(text[i]);
    if (length == 0) {
      json += "\\ufffd";
    } else if (byte < 0x20 || byte == 0x7F || byte == '"' || byte == '\\') {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(byte));
      json += escape;
    } else {
      json.append(text, i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return json + "\"";
}
