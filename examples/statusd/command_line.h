#ifndef STATUSD_COMMAND_LINE_H
#define STATUSD_COMMAND_LINE_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// A user and a group, by number.
struct User {
  unsigned int uid;
  unsigned int gid;
};

/// What the command line says. Options that are settings, too, are kept as such, and win over the file's.
struct CommandLine {
  std::optional<std::string> configFile;
  std::optional<std::string> pidFile;
  std::optional<User> user;
  std::vector<std::pair<std::string, std::string>> overrides;
  bool daemon = false;
  bool report = false;
  bool help = false;
  bool version = false;
};

/// Returns false with a message in `error` when an option is unknown, lacks its value, or has a wrong one.
bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error);

/// Makes the paths of files independent of the working directory, which a daemon leaves. Returns false with errno when
/// there is none any more.
bool MakePathsAbsolute(CommandLine& commandLine);

#endif  // STATUSD_COMMAND_LINE_H
