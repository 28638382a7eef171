#ifndef EXAMPLES_JSON_H
#define EXAMPLES_JSON_H

#include <optional>
#include <string>

/// Returns `text` as a JSON string: valid UTF-8, with U+FFFD for whatever is not, and no control characters.
std::string JsonString(const std::string& text);

/// Returns a number with so many decimals, or null.
std::string JsonNumber(const std::optional<double>& number, int decimals);

/// Returns a duration in milliseconds with two decimals, or null.
inline std::string JsonMs(const std::optional<double>& ms) { return JsonNumber(ms, 2); }

/// Returns a JSON array of what `write` makes of each item.
template <typename List, typename Write>
std::string JsonList(const List& list, Write write) {
  std::string json;
  for (const auto& item : list) {
    json += (json.empty() ? "" : ",") + write(item);
  }
  return "[" + json + "]";
}

#endif  // EXAMPLES_JSON_H
