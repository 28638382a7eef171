#ifndef KIV_UTILS_SPLIT_H
#define KIV_UTILS_SPLIT_H

#include <kiv/utils.h>

namespace kiv::utils {

/// Drops leading and trailing whitespace: blank, form feed, newline, carriage return, tab, vertical tab, and NUL.
/// Returns a view into the caller's bytes; text that is all whitespace gives the empty view with a null pointer.
StringView Trim(StringView text);

}  // namespace kiv::utils

#endif  // KIV_UTILS_SPLIT_H
