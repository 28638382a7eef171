#ifndef EXAMPLES_JSON_H
#define EXAMPLES_JSON_H

#include <string>

/// Returns `text` as a JSON string: valid UTF-8, with U+FFFD for whatever is not, and no control characters.
std::string JsonString(const std::string& text);

#endif  // EXAMPLES_JSON_H
