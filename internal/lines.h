#ifndef KIV_INTERNAL_LINES_H
#define KIV_INTERNAL_LINES_H

#include <fstream>
#include <string>

namespace kiv::internal {

/// Hands the lines of the file `path`, without their newlines, to `take` until it returns false. Returns true when the
/// file was read to its end; false with errno when it cannot be opened or read so far (a directory can be opened, but
/// not read), and false when `take` returned that.
template <typename Take>
bool ForEachLine(const char* path, Take take) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    if (!take(line)) {
      return false;
    }
  }
  return file.eof();
}

}  // namespace kiv::internal

#endif  // KIV_INTERNAL_LINES_H
