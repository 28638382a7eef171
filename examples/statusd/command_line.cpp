#include "command_line.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "common/number.h"
#include "common/printable.h"
#include "settings.h"

namespace {

bool SetFlag(const std::string& option, CommandLine& out) {
  bool* const flag = option == "--daemon"    ? &out.daemon
                     : option == "--report"  ? &out.report
                     : option == "--help"    ? &out.help
                     : option == "--version" ? &out.version
                                             : nullptr;
  if (flag == nullptr) {
    return false;
  }
  *flag = true;
  return true;
}

// "--interval-ms" is the setting "interval_ms"; empty for what cannot be an option with a value.
std::string KeyOfOption(const std::string& option) {
  const bool mayBe = option.compare(0, 2, "--") == 0 && option.find('_') == std::string::npos;
  std::string key = mayBe ? option.substr(2) : "";
  std::replace(key.begin(), key.end(), '-', '_');
  return key == "config" || key == "pidfile" || key == "user" || IsSetting(key) ? key : "";
}

// The largest number stands for "leave it as it is" in setuid's relatives.
bool ParseId(const std::string& text, unsigned int& out) {
  return ParseNumber(text, out) && out != static_cast<unsigned int>(-1);
}

bool ParseUser(const std::string& text, std::optional<User>& out) {
  const std::size_t colon = text.find(':');
  User user{};
  if (colon == std::string::npos || !ParseId(text.substr(0, colon), user.uid) ||
      !ParseId(text.substr(colon + 1), user.gid)) {
    return false;
  }
  out = user;
  return true;
}

// Returns what is wrong with the value, or nothing.
std::string SetValue(const std::string& key, const std::string& value, CommandLine& out) {
  if (key == "config") {
    out.configFile = value;
  } else if (key == "pidfile") {
    out.pidFile = value;
  } else if (key == "user") {
    return ParseUser(value, out.user) ? "" : "user must be UID:GID, two numbers, not " + Quote(value);
  } else {
    out.overrides.emplace_back(key, value);
  }
  return "";
}

bool MakeAbsolute(std::optional<std::string>& path) {
  std::error_code failure;
  if (path && !path->empty()) {
    path = std::filesystem::absolute(*path, failure).string();
  }
  errno = failure.value();
  return !failure;
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (SetFlag(option, out)) {
      continue;
    }
    const std::string key = KeyOfOption(option);
    if (key.empty()) {
      error = "unknown option " + Quote(option) + "; see --help";
    } else if (++i == argc) {
      error = "option " + option + " needs a value";
    } else {
      error = SetValue(key, argv[i], out);
    }
    if (!error.empty()) {
      return false;
    }
  }
  return true;
}

bool MakePathsAbsolute(CommandLine& commandLine) {
  return MakeAbsolute(commandLine.configFile) && MakeAbsolute(commandLine.pidFile);
}
