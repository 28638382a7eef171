#ifndef EXAMPLES_UTF8_H
#define EXAMPLES_UTF8_H

#include <cstddef>
#include <string>

/// Returns the length of the UTF-8 character at `at`, or 0 when there is none.
inline std::size_t Utf8Length(const std::string& text, std::size_t at) {
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

/// Tells whether the UTF-8 character at `at` is a control character, U+0080 to U+009F included: a terminal obeys those
/// as it obeys escape sequences.
inline bool IsControlAt(const std::string& text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  return byte < 0x20 || byte == 0x7F || (byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0);
}

#endif  // EXAMPLES_UTF8_H
