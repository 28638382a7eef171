#ifndef KIV_UTILS_SPLIT_H
#define KIV_UTILS_SPLIT_H

#include <kiv/utils.h>

#include <string>
#include <vector>

namespace kiv::utils {

/// Drops leading and trailing whitespace: blank, form feed, newline, carriage return, tab, vertical tab, and NUL.
/// Returns a view into the caller's bytes; text that is all whitespace gives the empty view with a null pointer.
StringView Trim(StringView text);

/// Returns a copy of the bytes.
std::string ToString(StringView text);

/// Returns what lies between blanks, however many: the columns of the kernel's padded tables. None is empty.
std::vector<std::string> SplitColumns(StringView line);

}  // namespace kiv::utils

#endif  // KIV_UTILS_SPLIT_H
