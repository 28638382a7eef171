#include "settings_file.h"

#include <kiv/fs.h>
#include <kiv/utils.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>

#include "common/printable.h"

namespace {

constexpr std::size_t kMaxFileSize = 65536;

// The library's reader takes files of any size, and waits for what others write into a pipe. Returns why it is not to
// have this one, or nothing.
std::string ReadBytes(const std::string& path, std::string& bytes) {
  if (!kiv::fs::IsRegularFile(path)) {
    return kiv::fs::Exists(path) ? "it is not a regular file" : std::strerror(errno);
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  bytes.resize(kMaxFileSize);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  if (file.eof()) {
    return "";
  }
  return errno != 0 ? std::strerror(errno) : "it has 64 KiB or more";
}

// Returns what is wrong with the file, or nothing.
std::string Read(const std::string& path, SettingsFile& out) {
  std::string bytes;
  const std::string failure = ReadBytes(path, bytes);
  if (!failure.empty()) {
    return failure;
  }
  // Of a file that is replaced between here and the next line, the checksum is wrong until it is read again.
  out.crc32 = kiv::utils::CalcCrc32(bytes);
  errno = 0;
  if (kiv::utils::ParseIniFile(path.c_str(), out.sections)) {
    return "";
  }
  return errno != 0 ? std::strerror(errno) : "a line that begins with [ is not \"[section]\"";
}

}  // namespace

bool ReadSettingsFile(const std::string& path, SettingsFile& out, std::string& error) {
  const std::string failure = Read(path, out);
  error = failure.empty() ? "" : "cannot read the settings file " + Quote(path) + ": " + failure;
  return failure.empty();
}
