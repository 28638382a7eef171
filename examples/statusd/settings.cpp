#include "settings.h"

#include <kiv/net.h>
#include <kiv/utils.h>

#include <algorithm>
#include <charconv>
#include <fstream>

namespace {

constexpr std::size_t kMaxFileSize = 65536;

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
};

std::string Quote(const std::string& text) { return "\"" + text + "\""; }

bool ParseNumber(const std::string& text, long min, long max, long& out) {
  long value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, value);
  if (failure != std::errc() || stop != end || value < min || value > max) {
    return false;
  }
  out = value;
  return true;
}

bool SetName(const std::string& name, Settings& out) {
  const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  if (name.empty() || name.size() > 64 || std::any_of(name.begin(), name.end(), isControl)) {
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
  if (colon == text.size() || !kiv::net::IPtoN(ip, address) || !ParseNumber(text.substr(colon + 1), 0, 65535, port)) {
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

// Returns what is wrong with the setting, or nothing.
std::string Set(const std::string& key, const std::string& value, Settings& out) {
  if (key == "name") {
    return SetName(value, out) ? "" : "name must have 1 to 64 bytes and no control characters";
  }
  if (key == "listen") {
    return SetListen(value, out) ? "" : "listen must be IP:PORT, such as 127.0.0.1:8080, not " + Quote(value);
  }
  if (key == "peer") {
    return SetPeer(value, out) ? "" : "peer must be a URL such as http://192.0.2.1:8080/, not " + Quote(value);
  }
  for (const NumberKey& number : kNumbers) {
    if (key == number.key) {
      return ParseNumber(value, number.min, number.max, out.*number.field)
                 ? ""
                 : key + " must be a number from " + std::to_string(number.min) + " to " + std::to_string(number.max) +
                       ", not " + Quote(value);
    }
  }
  return "unknown setting " + Quote(key);
}

bool ReadFile(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  text.resize(kMaxFileSize);
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  // The end must have been met: a directory fails, and a device that never ends does not get there.
  return file.eof();
}

bool ApplyFile(const std::string& path, Settings& out, std::string& error) {
  std::string text;
  if (!ReadFile(path, text)) {
    error = "cannot read the settings file " + Quote(path);
    return false;
  }
  int lineNumber = 0;
  for (const std::string& line : kiv::utils::Split(text, "\n")) {
    ++lineNumber;
    const std::size_t first = line.find_first_not_of(" \t\r\f\v");
    if (first == std::string::npos || line[first] == '#' || line[first] == ';') {
      continue;
    }
    const auto [key, value] = kiv::utils::SplitKeyValue(line, "=");
    error = key.empty() ? "expected \"key = value\"" : Set(key, value, out);
    if (!error.empty()) {
      error = path + ":" + std::to_string(lineNumber) + ": " + error;
      return false;
    }
  }
  return true;
}

// "--interval-ms" is the setting "interval_ms"; empty for anything that no option can be.
std::string KeyOfOption(const std::string& option) {
  std::string key = option.compare(0, 2, "--") == 0 ? option.substr(2) : "";
  std::replace(key.begin(), key.end(), '-', '_');
  const auto isKey = [&key](const NumberKey& number) { return key == number.key; };
  const bool known = key == "config" || key == "name" || key == "listen" || key == "peer" ||
                     std::any_of(std::begin(kNumbers), std::end(kNumbers), isKey);
  return known ? key : "";
}

}  // namespace

bool ParseCommandLine(int argc, const char* const* argv, CommandLine& out, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const std::string key = KeyOfOption(option);
    if (option == "--report") {
      out.report = true;
    } else if (option == "--help") {
      out.help = true;
    } else if (option == "--version") {
      out.version = true;
    } else if (key.empty()) {
      error = "unknown option " + Quote(option) + "; see --help";
      return false;
    } else if (++i == argc) {
      error = "option " + option + " needs a value";
      return false;
    } else if (key == "config") {
      out.configFile = argv[i];
    } else {
      out.overrides.emplace_back(key, argv[i]);
    }
  }
  return true;
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
