#ifndef STATUSD_SETTINGS_H
#define STATUSD_SETTINGS_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What statusd.ini explains, with the same defaults. Durations are in milliseconds.
struct Settings {
  std::string name;
  std::string listenIp = "127.0.0.1";
  unsigned short listenPort = 8080;
  std::string peer;
  long intervalMs = 1000;
  long timeoutMs = 1000;
  long slowMs = 500;
  long clientDeadlineMs = 10000;
  long maxClients = 64;
};

/// What the command line says. Options with a value are kept as settings that win over the file's.
struct CommandLine {
  std::optional<std::string> configFile;
  std::vector<std::pair<std::string, std::string>> overrides;
  bool report = false;
  bool help = false;
  bool version = false;
};

/// Returns false with a message in `error` when an option is unknown or lacks its value.
bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error);

/// Reads the file, if there is one, and then the options. Returns false with a message in `error`, and `out` untouched,
/// when the file cannot be read or a setting is wrong.
bool LoadSettings(const CommandLine& commandLine, Settings& out, std::string& error);

#endif  // STATUSD_SETTINGS_H
