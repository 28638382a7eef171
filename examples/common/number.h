#ifndef EXAMPLES_NUMBER_H
#define EXAMPLES_NUMBER_H

#include <charconv>
#include <string>
#include <system_error>

/// Reads a decimal number that is all of `text`, without blanks or a plus sign. Returns false when it is none, or none
/// that `out` can hold; `out` then has any value.
template <typename Number>
bool ParseNumber(const std::string& text, Number& out) {
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, out);
  return failure == std::errc() && stop == end;
}

#endif  // EXAMPLES_NUMBER_H
