#include "fs/mount_table.h"

#include <kiv/fs.h>

#include <fstream>

namespace kiv::fs {

bool HasMountPoint(const std::string& line, const std::string& path) {
  const std::size_t first = line.find(' ');
  if (first == std::string::npos) {
    return false;
  }
  const std::size_t second = line.find(' ', first + 1);
  if (second == std::string::npos) {
    return false;
  }
  // Deliberate: byte for byte, without decoding the kernel's "\040" and the like and without normalising `path`. The
  // caller writes a mount point as the table does.
  return line.compare(first + 1, second - first - 1, path) == 0;
}

bool IsMounted(const std::string& path) {
  std::ifstream table("/proc/mounts");
  std::string line;
  while (std::getline(table, line)) {
    if (HasMountPoint(line, path)) {
      return true;
    }
  }
  return false;
}

}  // namespace kiv::fs
