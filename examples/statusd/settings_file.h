#ifndef STATUSD_SETTINGS_FILE_H
#define STATUSD_SETTINGS_FILE_H

#include <string>
#include <vector>

/// One line of a settings file that says something: "key = value", or a "[section]", which has an empty key.
struct SettingsLine {
  int number;
  std::string section;  ///< The one that the line is in; empty above the first.
  std::string key;
  std::string value;
};

/// Reads a file of "key = value" lines, in sections, with comments behind # or ; at the beginning of a line. Returns
/// false with a message in `error` when it cannot be read or a line is neither.
bool ReadSettingsFile(const std::string& path, std::vector<SettingsLine>& out, std::string& error);

/// Returns how a message names this line of the file.
std::string Place(const std::string& path, int line);

#endif  // STATUSD_SETTINGS_FILE_H
