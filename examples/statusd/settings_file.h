#ifndef STATUSD_SETTINGS_FILE_H
#define STATUSD_SETTINGS_FILE_H

#include <map>
#include <string>

/// What a settings file says.
struct SettingsFile {
  std::map<std::string, std::map<std::string, std::string>> sections;  ///< Keys and values by section; "" is above all.
  unsigned int crc32 = 0;                                              ///< Of its bytes.
};

/// Reads an INI file. Returns false with a message in `error` when it cannot be read, or has a malformed section
/// header.
bool ReadSettingsFile(const std::string& path, SettingsFile& out, std::string& error);

#endif  // STATUSD_SETTINGS_FILE_H
