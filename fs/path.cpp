#include "fs/path.h"

#include <kiv/fs.h>

namespace kiv::fs {

std::string Dirname(const std::string& path) {
  if (path.empty()) {
    return ".";
  }
  std::string text = path;
  while (text.size() > 1 && text.back() == '/') {
    text.pop_back();
  }
  const std::size_t slash = text.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  // Slashes before the last one stay: "a//b" gives "a/".
  return slash == 0 ? "/" : text.substr(0, slash);
}

// Deliberate: slashes at the end stay, unlike in Dirname, so that a path that names a directory by its slash has no
// base name.
std::string Basename(const std::string& path) { return path.substr(StartOfBasename(path)); }

}  // namespace kiv::fs
