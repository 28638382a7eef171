#ifndef STATUSD_SETTINGS_H
#define STATUSD_SETTINGS_H

#include <optional>
#include <string>
#include <vector>

#include "command_line.h"

/// A program and its arguments; empty for none.
using Program = std::vector<std::string>;

/// Processes to watch by their short name, and what to start when there are none.
struct Watched {
  std::string name;
  Program program;
};

/// What statusd.ini explains, with the same defaults.
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
  Program command;
  long commandIntervalMs = 10000;
  std::string share;
  long restartDelayMs = 5000;
  std::string watchdog;
  long watchdogTimeoutS = 30;
  long watchdogHangMs = 10000;
  std::vector<Watched> watched;
  std::optional<unsigned int> fileCrc32;  ///< Of the file that they come from, if there is one.
};

/// Tells whether there is a setting of this name outside any section.
bool IsSetting(const std::string& key);

/// Reads the file, if there is one, and then the options. Returns false with a message in `error`, and `out` untouched,
/// when the file cannot be read or a setting is wrong.
bool LoadSettings(const CommandLine& commandLine, Settings& out, std::string& error);

/// Returns the words of a program with a blank between them.
std::string ToText(const Program& program);

#endif  // STATUSD_SETTINGS_H
