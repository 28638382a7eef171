#include "settings.h"

#include <kiv/net.h>
#include <kiv/utils.h>

#include <algorithm>
#include <iterator>

#include "common/number.h"
#include "common/printable.h"
#include "common/shared_figures.h"
#include "settings_file.h"

namespace {

constexpr std::size_t kMaxProcessName = 15;
constexpr std::size_t kMaxWatched = SharedFigures::kMaxProcesses;

struct NumberKey {
  const char* key;
  long Settings::*field;
  long min;
  long max;
};

// The upper limit of timeout_ms is also how long ending the daemon may take, when its peer does not answer.
constexpr NumberKey kNumbers[] = {
    {"interval_ms", &Settings::intervalMs, 50, 3600000},
    {"timeout_ms", &Settings::timeoutMs, 50, 5000},
    {"slow_ms", &Settings::slowMs, 1, 5000},
    {"client_deadline_ms", &Settings::clientDeadlineMs, 100, 3600000},
    {"max_clients", &Settings::maxClients, 1, 1000},
    {"command_interval_ms", &Settings::commandIntervalMs, 1000, 3600000},
    {"restart_delay_ms", &Settings::restartDelayMs, 100, 3600000},
    {"watchdog_timeout_s", &Settings::watchdogTimeoutS, 3, 86400},
    {"watchdog_hang_ms", &Settings::watchdogHangMs, 1000, 3600000},
};

bool ParseWithin(const std::string& text, long min, long max, long& out) {
  long value = 0;
  if (!ParseNumber(text, value) || value < min || value > max) {
    return false;
  }
  out = value;
  return true;
}

// A name of 1 to `max` bytes, which stays on its line.
bool IsName(const std::string& text, std::size_t max) {
  const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  return !text.empty() && text.size() <= max && std::none_of(text.begin(), text.end(), isControl);
}

bool SetName(const std::string& name, Settings& out) {
  if (!IsName(name, 64)) {
    return false;
  }
  out.name = name;
  return true;
}

bool SetListen(const std::string& text, Settings& out) {
  const std::size_t colon = std::min(text.rfind(':'), text.size());
  const std::string ip = text.substr(0, colon);
  unsigned int address = 0;
  long port = 0;
  if (colon == text.size() || !kiv::net::IPtoN(ip, address) || !ParseWithin(text.substr(colon + 1), 0, 65535, port)) {
    return false;
  }
  out.listenIp = ip;
  out.listenPort = static_cast<unsigned short>(port);
  return true;
}

// Names would have to be resolved, and a resolver may take longer than the daemon may take to end. The client sends the
// path as it is, so nothing may be in it that ends the line of the request.
bool SetPeer(const std::string& url, Settings& out) {
  const auto isGraphic = [](unsigned char c) { return c > 0x20 && c < 0x7F; };
  kiv::net::HttpClient::ParsedUrl parsed;
  unsigned int address = 0;
  const bool valid = std::all_of(url.begin(), url.end(), isGraphic) && kiv::net::HttpClient().ParseUrl(url, parsed) &&
                     (parsed.host == "localhost" || kiv::net::IPtoN(parsed.host, address));
  if (!valid && !url.empty()) {
    return false;
  }
  out.peer = url;
  return true;
}

bool SetShare(const std::string& name, Settings& out) {
  if (!name.empty() && !IsShareName(name)) {
    return false;
  }
  out.share = name;
  return true;
}

// A relative path would mean another file after --daemon, which changes the working directory.
bool SetWatchdog(const std::string& path, Settings& out) {
  if ((!path.empty() && path.front() != '/') || path.find('\0') != std::string::npos) {
    return false;
  }
  out.watchdog = path;
  return true;
}

// Splits at blanks and tabs; nothing else has a meaning, quotes neither. A NUL byte would cut a word short.
bool SetProgram(const std::string& line, Program& out) {
  if (line.find('\0') != std::string::npos) {
    return false;
  }
  out.clear();
  for (std::size_t end = 0, begin = 0; (begin = line.find_first_not_of(" \t", end)) != std::string::npos;) {
    end = std::min(line.find_first_of(" \t", begin), line.size());
    out.push_back(line.substr(begin, end - begin));
  }
  return true;
}

bool SetCommand(const std::string& line, Settings& out) { return SetProgram(line, out.command); }

struct TextKey {
  const char* key;
  bool (*set)(const std::string& value, Settings& out);
  const char* wants;
};

constexpr TextKey kTexts[] = {
    {"name", SetName, "have 1 to 64 bytes and no control characters"},
    {"listen", SetListen, "be an IPv4 address and a port, such as 127.0.0.1:8080"},
    {"peer", SetPeer, "be an http:// URL with an IPv4 address or localhost, such as http://192.0.2.1:8080/"},
    {"command", SetCommand, "have no NUL bytes"},
    {"watchdog", SetWatchdog, "be the absolute path of a device, such as /dev/watchdog"},
    {"share", SetShare, "be a name such as /statusd, of 200 bytes at most and not beginning with /sem."},
};

template <typename Keys>
auto FindKey(const Keys& keys, const std::string& key) {
  return std::find_if(std::begin(keys), std::end(keys), [&key](const auto& known) { return key == known.key; });
}

// Returns what is wrong with the setting, or nothing.
std::string SetNumber(const NumberKey& number, const std::string& value, Settings& out) {
  return ParseWithin(value, number.min, number.max, out.*number.field)
             ? ""
             : std::string(number.key) + " must be a number from " + std::to_string(number.min) + " to " +
                   std::to_string(number.max) + ", not " + Quote(value);
}

// Returns what is wrong with the setting, or nothing.
std::string Set(const std::string& key, const std::string& value, Settings& out) {
  const auto* const text = FindKey(kTexts, key);
  if (text != std::end(kTexts)) {
    return text->set(value, out) ? "" : key + " must " + text->wants + ", not " + Quote(value);
  }
  const auto* const number = FindKey(kNumbers, key);
  return number != std::end(kNumbers) ? SetNumber(*number, value, out) : "unknown setting " + Quote(key);
}

std::string SetWatched(const std::string& name, const std::string& line, Settings& out) {
  Watched watched{name, {}};
  if (!IsName(name, kMaxProcessName)) {
    return "the short name of a process has 1 to 15 bytes, and no control characters";
  }
  if (!SetProgram(line, watched.program)) {
    return "a program must have no NUL bytes";
  }
  if (out.watched.size() == kMaxWatched) {
    return "no more than " + std::to_string(kMaxWatched) + " processes can be watched";
  }
  out.watched.push_back(watched);
  return "";
}

// Returns what is wrong with the section, or nothing.
std::string Apply(const std::string& section, const std::map<std::string, std::string>& pairs, Settings& out) {
  if (!section.empty() && section != "watch") {
    return "unknown section " + Quote(section);
  }
  for (const auto& [key, value] : pairs) {
    const std::string wrong = section.empty() ? Set(key, value, out) : SetWatched(key, value, out);
    if (!wrong.empty()) {
      return section.empty() ? wrong : "[" + section + "] " + Quote(key) + ": " + wrong;
    }
  }
  return "";
}

bool ApplyFile(const std::string& path, Settings& out, std::string& error) {
  SettingsFile file;
  if (!ReadSettingsFile(path, file, error)) {
    return false;
  }
  for (const auto& [section, pairs] : file.sections) {
    const std::string wrong = Apply(section, pairs, out);
    if (!wrong.empty()) {
      error = path + ": " + wrong;
      return false;
    }
  }
  out.fileCrc32 = file.crc32;
  return true;
}

}  // namespace

bool IsSetting(const std::string& key) {
  return FindKey(kTexts, key) != std::end(kTexts) || FindKey(kNumbers, key) != std::end(kNumbers);
}

bool LoadSettings(const CommandLine& commandLine, Settings& out, std::string& error) {
  Settings settings;
  const std::string host = kiv::utils::GetHostname();
  settings.name = host.empty() ? "statusd" : host;
  if (commandLine.configFile && !ApplyFile(*commandLine.configFile, settings, error)) {
    return false;
  }
  for (const auto& [key, value] : commandLine.overrides) {
    error = Set(key, value, settings);
    if (!error.empty()) {
      return false;
    }
  }
  out = settings;
  return true;
}

std::string ToText(const Program& program) {
  std::string text;
  for (const std::string& word : program) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}
