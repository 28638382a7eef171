#ifndef EXAMPLES_PRINTABLE_H
#define EXAMPLES_PRINTABLE_H

#include <cstddef>
#include <string>

/// Returns `text` with '?' for every control character and every byte that is not UTF-8, so that it stays on its line
/// and tells the terminal nothing.
std::string Printable(const std::string& text);

/// Returns how many characters `text` has, not bytes: columns stay straight under names with umlauts.
std::size_t Width(const std::string& text);

/// Returns `text` in quotes, as messages show what somebody wrote.
std::string Quote(const std::string& text);

#endif  // EXAMPLES_PRINTABLE_H
